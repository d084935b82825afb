#pragma once

#include <string>

namespace demo {

// A network with nothing but loopback, a /dev and a /run of this process's own and of all that it starts later: demos side
// by side never meet, the machine's own proxies are not touched, and nothing stays behind. Without root in a user
// namespace of its own, where the system allows that. Tried in a process apart first, so that a refusal changes nothing.
// Call it while there is one thread. False: `problem` says what the system refused.
bool EnterSandbox(std::string& problem);

} // namespace demo
