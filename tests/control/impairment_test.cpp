#include "control/impairment.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <string>

#include <gtest/gtest.h>

namespace {

// What becomes of the next packets: "." passed, "x" withheld.
std::string Pattern(Impairment& impair, int packets)
{
    std::string pattern;
    for (int i = 0; i < packets; ++i)
        pattern += StepImpairment(impair) ? 'x' : '.';
    return pattern;
}

std::string Passed(size_t count)
{
    return std::string(count, '.');
}

Impairment& Configured(Impairment& impair, const ImpairmentSettings& settings)
{
    InitImpairment(impair);
    ConfigureImpairment(impair, settings);
    return impair;
}

TEST(Impairment, AFreshOneIsOff)
{
    Impairment impair;
    InitImpairment(impair);
    EXPECT_EQ(impair.m_mode, 0);
    EXPECT_EQ(impair.m_burst.m_min, 1);
    EXPECT_EQ(impair.m_burst.m_max, 1);
    EXPECT_EQ(impair.m_burst.m_range, 1);
    EXPECT_EQ(impair.m_burst.m_value, 1);
    EXPECT_EQ(impair.m_dist.m_min, 100);
    EXPECT_EQ(impair.m_dist.m_max, 100);
    EXPECT_EQ(impair.m_dist.m_range, 1);
    EXPECT_EQ(impair.m_dist.m_value, 99);
    EXPECT_EQ(Pattern(impair, 300), Passed(300));
    EXPECT_EQ(impair.m_dist.m_value, 99);
}

TEST(Impairment, TheDefaultsPass99ThenWithhold1OfEvery101)
{
    Impairment impair;
    Configured(impair, {});
    EXPECT_EQ(impair.m_mode, IMPAIRMENT_FIXED);
    const std::string round = "x" + Passed(100);
    EXPECT_EQ(Pattern(impair, 99 + 3 * 101), Passed(99) + round + round + round);
}

TEST(Impairment, MinDist1AndMinDrop1WithholdEveryOtherPacketFromTheFirstOn)
{
    Impairment impair;
    Configured(impair, { .minDrop = 1, .minDist = 1 });
    EXPECT_EQ(Pattern(impair, 8), "x.x.x.x.");
}

TEST(Impairment, ABurstHasMinDropPackets)
{
    Impairment impair;
    Configured(impair, { .minDrop = 3, .minDist = 4 });
    EXPECT_EQ(Pattern(impair, 17), "...xxx....xxx....");
}

TEST(Impairment, CountersAreNegativeDuringABurst)
{
    Impairment impair;
    Configured(impair, { .minDrop = 3, .minDist = 1 });
    EXPECT_TRUE(StepImpairment(impair));
    EXPECT_EQ(impair.m_dist.m_value, -1);
    EXPECT_EQ(impair.m_burst.m_value, 2);
    EXPECT_TRUE(StepImpairment(impair));
    EXPECT_EQ(impair.m_dist.m_value, -2);
}

TEST(Impairment, MinDrop0WithholdsNothing)
{
    Impairment impair;
    Configured(impair, { .minDrop = 0, .minDist = 2 });
    EXPECT_EQ(Pattern(impair, 10), Passed(10));
}

TEST(Impairment, EveryOtherModeBehavesAsOffAndStepsNoCounter)
{
    for (const int32_t mode : { 0, 3, -1, 2147483647 }) {
        Impairment impair;
        Configured(impair, { .minDrop = 1, .minDist = 1, .mode = mode });
        EXPECT_EQ(Pattern(impair, 5), Passed(5)) << mode;
        EXPECT_EQ(impair.m_burst.m_value, 1);
        EXPECT_EQ(impair.m_dist.m_value, 0);
    }
}

TEST(Impairment, Mode2HasNoMinusOne)
{
    Impairment impair;
    Configured(impair, { .minDrop = 2, .minDist = 3, .maxDrop = 2, .maxDist = 3, .mode = IMPAIRMENT_RANDOM });
    EXPECT_EQ(Pattern(impair, 18), "...xx....xx....xx.");
}

TEST(Impairment, Mode2DrawsGapsBetweenMinDistAndMaxDistAndBurstsOfMinDrop)
{
    Impairment impair;
    Configured(
        impair, { .minDrop = 2, .minDist = 5, .maxDrop = 10, .maxDist = 20, .mode = IMPAIRMENT_RANDOM });
    std::string pattern = Pattern(impair, 20000);
    size_t shortest = 1000;
    size_t longest = 0;
    bool isFirst = true;
    size_t at = 0;
    for (size_t next = pattern.find("xx", at); next != std::string::npos; next = pattern.find("xx", at)) {
        const size_t gap = next - at - (isFirst ? 0 : 1); // the packet that ends a burst passes as well
        shortest = std::min(shortest, gap);
        longest = std::max(longest, gap);
        at = next + 2;
        isFirst = false;
        ASSERT_NE(pattern[at], 'x') << "a burst of more than min_drop packets";
    }
    EXPECT_EQ(shortest, 5U);
    EXPECT_GE(longest, 19U);
    EXPECT_LE(longest, 21U);
}

TEST(Impairment, RangesAreMaxPlusOneLessMinUnchecked)
{
    Impairment impair;
    Configured(impair, { .minDrop = 5, .minDist = 100, .maxDrop = 2, .maxDist = 200, .mode = 1 });
    EXPECT_EQ(impair.m_burst.m_range, -2);
    EXPECT_EQ(impair.m_dist.m_range, 101);
    EXPECT_EQ(impair.m_burst.m_min, 5);
    EXPECT_EQ(impair.m_burst.m_max, 2);
    EXPECT_EQ(impair.m_dist.m_min, 100);
    EXPECT_EQ(impair.m_dist.m_max, 200);
}

TEST(Impairment, SettingsAtTheLimitsWrap)
{
    constexpr int32_t LEAST = std::numeric_limits<int32_t>::min();
    constexpr int32_t MOST = std::numeric_limits<int32_t>::max();
    Impairment impair;
    Configured(impair, { .minDrop = LEAST, .minDist = LEAST, .maxDrop = MOST, .maxDist = MOST, .mode = 1 });
    EXPECT_EQ(impair.m_dist.m_range, 0);
    EXPECT_EQ(impair.m_dist.m_value, MOST);
    impair.m_dist.m_value = LEAST;
    EXPECT_EQ(Pattern(impair, 2), "..");
    Configured(impair, { .minDrop = LEAST, .minDist = LEAST, .maxDrop = MOST, .maxDist = MOST, .mode = 2 });
    EXPECT_EQ(impair.m_burst.m_value, LEAST); // both ranges are 0: nothing is drawn
    EXPECT_EQ(impair.m_dist.m_value, LEAST);
    EXPECT_EQ(Pattern(impair, 10), Passed(10));
    EXPECT_EQ(impair.m_dist.m_value, MOST - 9);
}

TEST(DrawBurst, IsAlmostAlwaysMinDropBecauseTheProductWraps)
{
    EXPECT_EQ(DrawBurst(1, 10, 0), 1);
    EXPECT_EQ(DrawBurst(1, 10, 214748364), 1);
    EXPECT_EQ(DrawBurst(1, 10, 214748365), 1); // 2147483650 is negative in 32 bits
    EXPECT_EQ(DrawBurst(1, 10, 2147483646), 1);
    EXPECT_EQ(DrawBurst(7, 1000, 123456789), 7);
}

TEST(DrawBurst, CanBeOneMoreOrOneLess)
{
    EXPECT_EQ(DrawBurst(5, 1, 2147483647), 6);
    EXPECT_EQ(DrawBurst(5, 1, 2147483646), 5);
    EXPECT_EQ(DrawBurst(5, 2, 1073741824), 4); // the product is -2147483648
    EXPECT_EQ(DrawBurst(5, -1, 2147483647), 4);
    EXPECT_EQ(DrawBurst(5, -1, 2147483646), 5);
}

TEST(DrawDistance, IsEvenFromMinDistToMaxDist)
{
    EXPECT_EQ(DrawDistance(100, 101, 0), 100);
    EXPECT_EQ(DrawDistance(100, 101, 1073741823), 150);
    EXPECT_EQ(DrawDistance(100, 101, 2147483646), 200);
}

TEST(DrawDistance, IsMaxDistPlus1OnlyForTheLargestRandomNumber)
{
    EXPECT_EQ(DrawDistance(100, 101, 2147483647), 201);
}

TEST(DrawDistance, TruncatesTowardsZeroForARangeBelow0)
{
    EXPECT_EQ(DrawDistance(100, -9, 2147483647), 91);
    EXPECT_EQ(DrawDistance(100, -9, 2147483646), 92);
    EXPECT_EQ(DrawDistance(100, 0, 2147483647), 100);
}

} // namespace
