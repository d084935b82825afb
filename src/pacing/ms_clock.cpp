#include "pacing/ms_clock.h"

#include <ctime>

uint32_t TimeMs(const timeval& now)
{
    return static_cast<uint32_t>(now.tv_sec) * 1000U + static_cast<uint32_t>(now.tv_usec / 1000);
}

uint32_t GetTimeMs()
{
    timeval now {};
    (void)gettimeofday(&now, nullptr);
    return TimeMs(now);
}

uint32_t GetSteadyMs()
{
    timespec now {};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint32_t>(now.tv_sec) * 1000U + static_cast<uint32_t>(now.tv_nsec / 1000000);
}

int64_t GetTimeUs()
{
    timeval now {};
    (void)gettimeofday(&now, nullptr);
    return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_usec;
}

bool SleepMs(uint32_t ms)
{
    timespec left { static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000 };
    while (nanosleep(&left, &left) != 0) {}
    return true;
}
