#pragma once

#include <cstdint>

namespace common {

constexpr int64_t US_PER_MS = 1000;
constexpr int64_t US_PER_SECOND = 1'000'000;

// Microseconds of the monotonic clock. It never steps; two machines' clocks have nothing to do with each other.
int64_t NowUs();

} // namespace common
