#include "pacing/wall_clock_steps.h"

#include <gtest/gtest.h>

namespace {

constexpr uint32_t START_WALL_MS = 5000;
constexpr uint32_t START_STEADY_MS = 0xFFFFFFF0U; // wraps with the first tick
constexpr uint32_t TICK_MS = 20;

// The two clocks as a thread sees them, tick by tick.
class WallClockStepsTest : public testing::Test {
protected:
    // One tick during which the wall clock goes `extraMs` further than the other.
    uint32_t Tick(uint32_t extraMs)
    {
        m_nWallMs += TICK_MS + extraMs;
        m_nSteadyMs += TICK_MS;
        return m_steps.Look(m_nWallMs, m_nSteadyMs);
    }

    uint32_t m_nWallMs = START_WALL_MS;
    uint32_t m_nSteadyMs = START_STEADY_MS;
    WallClockSteps m_steps;
};

TEST_F(WallClockStepsTest, TheFirstLookSeesNone)
{
    EXPECT_EQ(m_steps.Look(123456789, 1), 0U);
}

TEST_F(WallClockStepsTest, TimeThatPassesOnBothClocksIsNone)
{
    (void)Tick(0);
    EXPECT_EQ(Tick(0), 0U);
    m_nWallMs += 10000; // the thread was stopped for ten seconds
    m_nSteadyMs += 10000;
    EXPECT_EQ(Tick(0), 0U);
}

TEST_F(WallClockStepsTest, AStepEitherWayIsSeenOnceAndInFull)
{
    constexpr uint32_t HOUR_MS = 3600000;
    for (const uint32_t step : { HOUR_MS, 0U - HOUR_MS, 1000U, 0U - 1000U, 0x80000000U, 0x7FFFFFFFU }) {
        (void)Tick(0);
        EXPECT_EQ(Tick(step), step);
        EXPECT_EQ(Tick(0), 0U);
    }
}

TEST_F(WallClockStepsTest, LessThanASecondIsNone)
{
    (void)Tick(0);
    EXPECT_EQ(Tick(999), 0U);
    EXPECT_EQ(Tick(0U - 999U), 0U);
    for (int i = 0; i < 5000; ++i) // a clock that is slewed is followed, however long
        EXPECT_EQ(Tick(1), 0U);
}

} // namespace
