#pragma once

#include <sys/time.h>

#include <cstdint>

// Wall-clock milliseconds modulo 2^32. Compare two readings with TicksSince only.
uint32_t TimeMs(const timeval& now);
uint32_t GetTimeMs();

// Milliseconds modulo 2^32 on a clock that nobody sets, for how long something has lasted. Compared likewise.
uint32_t GetSteadyMs();

// Wall-clock microseconds since the epoch.
int64_t GetTimeUs();

// Sleeps the whole time, also across signals. Always returns true.
bool SleepMs(uint32_t ms);
