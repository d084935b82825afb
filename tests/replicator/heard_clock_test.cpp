#include "replicator/heard_clock.h"

#include <gtest/gtest.h>

namespace {

// Rounds as the listen thread has them while nothing arrives, from one time to the other.
void Listen(HeardClock& clock, uint32_t fromMs, uint32_t toMs)
{
    for (uint32_t ms = fromMs; ms != toMs; ms += 250)
        clock.OnRound(ms);
    clock.OnRound(toMs);
}

TEST(HeardClock, GoesWithTheSteadyClockWhileTheThreadListens)
{
    HeardClock clock;
    clock.OnRound(1000);
    const uint32_t then = clock.Now(1000);
    Listen(clock, 1000, 11000);
    EXPECT_EQ(clock.Now(11000) - then, 10000U);
    EXPECT_EQ(clock.Now(11200) - then, 10200U);
}

TEST(HeardClock, StandsStillWhileTheThreadStandsInASend)
{
    HeardClock clock;
    clock.OnRound(1000);
    const uint32_t then = clock.Now(1000);
    EXPECT_EQ(clock.Now(1300) - then, 300U);
    EXPECT_EQ(clock.Now(1301) - then, 300U);
    EXPECT_EQ(clock.Now(31000) - then, 300U);
}

TEST(HeardClock, GoesOnWhereItStoodWhenTheThreadIsBack)
{
    HeardClock clock;
    clock.OnRound(1000);
    const uint32_t then = clock.Now(1000);
    clock.OnRound(31000);
    EXPECT_EQ(clock.Now(31000) - then, 300U);
    Listen(clock, 31000, 33000);
    EXPECT_EQ(clock.Now(33000) - then, 2300U);
}

TEST(HeardClock, RoundsThatFollowEachOtherAtOnceCountWithTheirRealLength)
{
    HeardClock clock;
    clock.OnRound(1000);
    const uint32_t then = clock.Now(1000);
    for (uint32_t ms = 1000; ms <= 6000; ++ms)
        clock.OnRound(ms);
    EXPECT_EQ(clock.Now(6000) - then, 5000U);
}

TEST(HeardClock, CountsOnAcrossAWrapOfTheSteadyClock)
{
    constexpr uint32_t BEFORE_WRAP = 0U - 1000U;
    HeardClock clock;
    clock.OnRound(BEFORE_WRAP);
    const uint32_t then = clock.Now(BEFORE_WRAP);
    Listen(clock, BEFORE_WRAP, 1000);
    EXPECT_EQ(clock.Now(1000) - then, 2000U);
}

} // namespace
