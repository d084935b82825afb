#include "arq/media_clock.h"

uint32_t MediaClockTicks(const timeval& now)
{
    const int32_t subSecond = static_cast<int32_t>(now.tv_usec) * 9 / 100;
    return static_cast<uint32_t>(now.tv_sec) * TICKS_PER_SECOND + static_cast<uint32_t>(subSecond);
}

uint32_t MediaClock()
{
    timeval now {};
    (void)gettimeofday(&now, nullptr);
    return MediaClockTicks(now);
}
