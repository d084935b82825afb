#include "arq/media_clock.h"

#include <gtest/gtest.h>

#include "base/byte_order.h"

namespace {

TEST(MediaClockTicks, HalfASecondIs45000Ticks)
{
    EXPECT_EQ(MediaClockTicks({ 0, 500000 }), 45000U);
    EXPECT_EQ(MediaClockTicks({ 10, 500000 }), 945000U);
}

TEST(MediaClockTicks, WrapModulo32Bits)
{
    constexpr uint64_t SECONDS = 1700000000;
    EXPECT_EQ(MediaClockTicks({ SECONDS, 500000 }), static_cast<uint32_t>(SECONDS * 90000 + 45000));
    // 2^32 ticks are 47,721 seconds and 76,296 microseconds and a bit.
    EXPECT_EQ(MediaClockTicks({ 47721, 858840 }), 0xFFFFFFFFU);
    EXPECT_EQ(MediaClockTicks({ 47721, 858845 }), 0U);
}

TEST(MediaClockTicks, OneMillisecondIs90Ticks)
{
    EXPECT_EQ(MediaClockTicks({ 0, 1000 }), 90U);
    EXPECT_EQ(MediaClockTicks({ 0, 999000 }), 89910U);
    EXPECT_EQ(TICKS_PER_MS, 90U);
    EXPECT_EQ(TICKS_PER_SECOND, 90000U);
}

TEST(MediaClockTicks, MicrosecondsRoundDown)
{
    EXPECT_EQ(MediaClockTicks({ 0, 11 }), 0U);
    EXPECT_EQ(MediaClockTicks({ 0, 12 }), 1U);
    EXPECT_EQ(MediaClockTicks({ 0, 999999 }), 89999U);
    EXPECT_EQ(MediaClockTicks({ 1, 0 }), 90000U);
}

TEST(MediaClock, IsTheWallClock)
{
    timeval before {};
    timeval after {};
    (void)gettimeofday(&before, nullptr);
    const uint32_t ticks = MediaClock();
    (void)gettimeofday(&after, nullptr);
    EXPECT_GE(TicksSince(ticks, MediaClockTicks(before)), 0);
    EXPECT_LE(TicksSince(ticks, MediaClockTicks(after)), 0);
}

} // namespace
