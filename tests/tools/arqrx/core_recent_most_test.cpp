#include "arqrx/core/recent_most.h"

#include <gtest/gtest.h>

#include "tools/arqrx/core_script.h"

namespace arqrx::test {
namespace {

TEST(ArqrxRecentMost, IsTheLargestOfTheLastSecondAndNothingBefore)
{
    RecentMost most;
    EXPECT_EQ(most.Most(0), 0U);
    most.Add(5, 20 * SECOND);
    most.Add(9, 20 * SECOND + 400 * MS);
    most.Add(7, 20 * SECOND + 450 * MS);
    EXPECT_EQ(most.Most(20 * SECOND + 450 * MS), 9U);
    EXPECT_EQ(most.Most(21 * SECOND + 400 * MS), 9U) << "a whole second later";
    EXPECT_EQ(most.Most(21 * SECOND + 500 * MS), 0U);
    most.Add(3, 21 * SECOND + 500 * MS);
    EXPECT_EQ(most.Most(21 * SECOND + 500 * MS), 3U) << "a tenth of a second is used again";
}

TEST(ArqrxRecentMost, AReceiverTellsItsLargestRequestAndForgetsIt)
{
    Script script;
    for (int64_t number = 0; number < 50; ++number)
        script.ComeEven(number);
    EXPECT_EQ(script.Counted().mostAsked, 0U);
    script.ComeEven(57); // seven are missing
    script.RunUntil(60 * MS);
    for (int64_t number = 60; number < 80; number += 2)
        script.ComeEven(number); // one at a time
    EXPECT_EQ(script.Counted().mostAsked, 7U);
    script.RunUntil(5 * SECOND);
    EXPECT_GT(script.Counted().numbersAsked, 7U);
    EXPECT_EQ(script.Counted().mostAsked, 0U);
}

} // namespace
} // namespace arqrx::test
