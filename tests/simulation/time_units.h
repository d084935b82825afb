#pragma once

#include <cstdint>

namespace simulation {

// In microseconds, in which all times are that nobody has rounded yet.
constexpr int64_t MS = 1000;
constexpr int64_t SECOND = 1000000;

} // namespace simulation
