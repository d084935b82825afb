#pragma once

// Set by a build of the tests: every datagram then leaves by a call of its own, from a socket that is not
// connected. What receivers get is the same, which is what that build is compared for.
#ifdef TX_PROXY_PLAIN_SENDS
constexpr bool SENDS_ARE_PLAIN = true;
#else
constexpr bool SENDS_ARE_PLAIN = false;
#endif
