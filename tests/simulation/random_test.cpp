#include "simulation/random.h"

#include <gtest/gtest.h>

namespace simulation {

// Figures from the reference algorithm: a seed means the same run on every machine.
TEST(SimulationRandom, GivesTheNumbersOfSplitMix64)
{
    Random random(1234567);
    EXPECT_EQ(random.Next(), 6457827717110365317U);
    EXPECT_EQ(random.Next(), 3203168211198807973U);
    EXPECT_EQ(random.Next(), 9817491932198370423U);
}

TEST(SimulationRandom, EachPurposeAndEachMemberDrawsForItself)
{
    Random first(7, Purpose::Uplink, 0);
    Random second(7, Purpose::Uplink, 1);
    Random third(7, Purpose::Downlink, 0);
    const uint64_t drawn = first.Next();
    EXPECT_NE(drawn, second.Next());
    EXPECT_NE(drawn, third.Next());
    EXPECT_EQ(drawn, Random(7, Purpose::Uplink, 0).Next());
}

TEST(SimulationRandom, BetweenReachesBothEndsAndNothingBeyond)
{
    Random random(1);
    bool seen[3] = {};
    for (int i = 0; i < 1000; ++i) {
        const int64_t drawn = random.Between(-1, 1);
        ASSERT_GE(drawn, -1);
        ASSERT_LE(drawn, 1);
        seen[drawn + 1] = true;
    }
    EXPECT_TRUE(seen[0] && seen[1] && seen[2]);
}

TEST(SimulationRandom, WhatNeverHappensDrawsNothing)
{
    Random random(1);
    EXPECT_FALSE(random.Chance(0));
    EXPECT_EQ(random.Next(), Random(1).Next());
    EXPECT_TRUE(random.Chance(1000));
}

} // namespace simulation
