#pragma once

#include <sys/time.h>

#include <cstdint>

constexpr uint32_t TICKS_PER_SECOND = 90000;
constexpr uint32_t TICKS_PER_MS = 90;

// The wall-clock time `now` in 90 kHz ticks, modulo 2^32. Compare two readings with TicksSince only.
uint32_t MediaClockTicks(const timeval& now);

// The current time in 90 kHz ticks. Keeps no state; any thread may call it.
uint32_t MediaClock();
