#pragma once

#include <cstdint>

// What answering a receiver costs is counted in sequence numbers looked up. A datagram sent takes
// about as long as so many of them.
constexpr uint32_t SEND_WORK = 32;
