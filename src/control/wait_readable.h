#pragma once

#include <cstdint>

// Waits until fd is readable, or its other end closed, timeoutMs at most (0: only looks). False on time-out,
// when a signal comes, and, after the whole time, for what cannot be waited for, such as a closed descriptor.
bool WaitReadable(int fd, uint32_t timeoutMs);
