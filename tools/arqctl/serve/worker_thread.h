#pragma once

#include <functional>
#include <thread>

namespace arqctl {

// A thread that leaves all signals to the thread of the event loop.
std::thread StartWorker(std::function<void()> work);

} // namespace arqctl
