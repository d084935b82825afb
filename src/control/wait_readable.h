#pragma once

#include <cstdint>

// Waits until fd is readable, timeoutMs at most (0: only looks). True only when it is readable; false on
// time-out, on error and, after the whole time, for a descriptor that select has no room for.
bool WaitReadable(int fd, uint32_t timeoutMs);
