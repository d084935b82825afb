#include "arqctl/core/shortfall.h"

#include <gtest/gtest.h>

#include <limits>

namespace arqctl {

namespace {

constexpr uint64_t SHORTFALL_UNDER_WAY = 64;

// One answer of a proxy that should have sent 100.
Shortfall::Settled TakeOf100(Shortfall& shortfall, uint64_t sent)
{
    return shortfall.Take(sent, 100, 100, SHORTFALL_UNDER_WAY);
}

TEST(Shortfall, WhatIsSentOverTheMostExpectedIsBeyondAtOnce)
{
    Shortfall shortfall;
    EXPECT_EQ(TakeOf100(shortfall, 100).beyond, 0U);
    EXPECT_EQ(TakeOf100(shortfall, 107).beyond, 7U);
    EXPECT_EQ(shortfall.Take(205, 100, 200, SHORTFALL_UNDER_WAY).beyond, 5U);
}

TEST(Shortfall, WhatWasOnlyUnderWayIsNeitherWithheldNorBeyondOnceItHasLeft)
{
    Shortfall shortfall;
    for (int i = 0; i < 100; ++i) {
        const Shortfall::Settled early = TakeOf100(shortfall, 60);
        const Shortfall::Settled later = TakeOf100(shortfall, 140);
        ASSERT_EQ(early.withheld + early.beyond + later.withheld + later.beyond, 0U) << i;
    }
}

TEST(Shortfall, ALittleThatIsMissingIsWithheldWhenTwoMoreAnswersSaySo)
{
    Shortfall shortfall;
    EXPECT_EQ(TakeOf100(shortfall, 95).withheld, 0U);
    EXPECT_EQ(TakeOf100(shortfall, 100).withheld, 0U);
    EXPECT_EQ(TakeOf100(shortfall, 100).withheld, 5U);
    EXPECT_EQ(TakeOf100(shortfall, 100).withheld, 0U) << "counted once";
}

TEST(Shortfall, WhatIsMissingAllTheTimeIsWithheldInFullTwoAnswersLate)
{
    Shortfall shortfall;
    uint64_t withheld = 0;
    for (int i = 0; i < 10; ++i)
        withheld += TakeOf100(shortfall, 99).withheld;
    EXPECT_EQ(withheld, 8U);
}

TEST(Shortfall, MoreThanCanBeUnderWayIsWithheldAtOnce)
{
    Shortfall shortfall;
    EXPECT_EQ(TakeOf100(shortfall, 36).withheld, 0U) << "64 may be under way";
    EXPECT_EQ(TakeOf100(shortfall, 99).withheld, 1U);
    EXPECT_EQ(shortfall.Take(0, 1000, 1000, SHORTFALL_UNDER_WAY).withheld, 1000U);
}

TEST(Shortfall, ForgottenItBeginsAnew)
{
    Shortfall shortfall;
    (void)TakeOf100(shortfall, 50);
    shortfall.Forget();
    EXPECT_EQ(TakeOf100(shortfall, 101).beyond, 1U) << "nothing was missing";
}

TEST(Shortfall, TheLargestNumbersDoNotWrap)
{
    constexpr uint64_t MOST = std::numeric_limits<uint64_t>::max();
    Shortfall shortfall;
    (void)shortfall.Take(0, 50, 50, MOST);
    EXPECT_EQ(shortfall.Take(0, MOST, MOST, 10).withheld, MOST - 10);
    EXPECT_EQ(shortfall.Take(MOST, 0, 0, 10).beyond, MOST - 10);
}

} // namespace

} // namespace arqctl
