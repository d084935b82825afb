#include "arq/sliding_extremum.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <initializer_list>
#include <limits>
#include <memory>
#include <random>

#include "support/allocation_hooks.h"

using test_support::FailNthAllocation;

namespace {

constexpr int32_t SMALLEST = std::numeric_limits<int32_t>::min();
constexpr int32_t LARGEST = std::numeric_limits<int32_t>::max();

std::unique_ptr<SlidingExtremum> Make(int32_t length, SlidingExtremum::Mode mode)
{
    bool ok = true;
    auto filter = std::make_unique<SlidingExtremum>(ok, length, mode);
    EXPECT_TRUE(ok);
    return filter;
}

void AddAll(SlidingExtremum& filter, std::initializer_list<int32_t> samples)
{
    for (const int32_t sample : samples)
        filter.Add(sample);
    filter.Recompute();
}

TEST(SlidingExtremum, StartsWithTheValueThatCanNeverWin)
{
    const auto minimum = Make(32, SlidingExtremum::MINIMUM);
    EXPECT_EQ(minimum->Minimum(), LARGEST);
    EXPECT_EQ(minimum->Maximum(), LARGEST);
    const auto maximum = Make(32, SlidingExtremum::MAXIMUM);
    EXPECT_EQ(maximum->Minimum(), SMALLEST);
    EXPECT_EQ(maximum->Maximum(), SMALLEST);
    const auto both = Make(32, SlidingExtremum::BOTH);
    EXPECT_EQ(both->Minimum(), 0);
    EXPECT_EQ(both->Maximum(), 0);
    for (const auto& filter : { minimum.get(), maximum.get(), both.get() })
        EXPECT_FALSE(filter->IsFull());
}

TEST(SlidingExtremum, TheMaximumOfMinusFiveAndMinusThreeIsMinusThree)
{
    const auto filter = Make(32, SlidingExtremum::MAXIMUM);
    AddAll(*filter, { -5, -3 });
    EXPECT_EQ(filter->Maximum(), -3);
}

TEST(SlidingExtremum, AfterAResetToZeroTheMaximumStaysAtZeroUntilNSamplesHaveCome)
{
    const auto filter = Make(3, SlidingExtremum::MAXIMUM);
    filter->Reset(0);
    AddAll(*filter, { -5, -6 });
    EXPECT_EQ(filter->Maximum(), 0);
    AddAll(*filter, { -7 });
    EXPECT_EQ(filter->Maximum(), -5);
}

TEST(SlidingExtremum, MinimumModeLeavesTheMaximumAlone)
{
    const auto filter = Make(4, SlidingExtremum::MINIMUM);
    AddAll(*filter, { 7, 3, 9 });
    EXPECT_EQ(filter->Minimum(), 3);
    EXPECT_EQ(filter->Maximum(), LARGEST);
}

TEST(SlidingExtremum, MaximumModeLeavesTheMinimumAlone)
{
    const auto filter = Make(4, SlidingExtremum::MAXIMUM);
    AddAll(*filter, { 7, 3, 9 });
    EXPECT_EQ(filter->Maximum(), 9);
    EXPECT_EQ(filter->Minimum(), SMALLEST);
}

TEST(SlidingExtremum, BothModeCountsTheUnfilledPlacesAsZero)
{
    const auto filter = Make(3, SlidingExtremum::BOTH);
    AddAll(*filter, { 7 });
    EXPECT_EQ(filter->Minimum(), 0);
    EXPECT_EQ(filter->Maximum(), 7);
    AddAll(*filter, { 5, 9 });
    EXPECT_EQ(filter->Minimum(), 5);
    EXPECT_EQ(filter->Maximum(), 9);
}

TEST(SlidingExtremum, TheOldestSampleLeavesTheWindow)
{
    const auto filter = Make(3, SlidingExtremum::MAXIMUM);
    AddAll(*filter, { 9, 1, 2 });
    EXPECT_EQ(filter->Maximum(), 9);
    AddAll(*filter, { 3 });
    EXPECT_EQ(filter->Maximum(), 3);
}

TEST(SlidingExtremum, TheLinearFormChangesItsExtremesInRecomputeOnly)
{
    const auto filter = Make(499, SlidingExtremum::MAXIMUM);
    filter->Add(5);
    EXPECT_EQ(filter->Maximum(), SMALLEST);
    filter->Recompute();
    EXPECT_EQ(filter->Maximum(), 5);
}

TEST(SlidingExtremum, From500SamplesOnTheExtremesNeedNoRecompute)
{
    const auto filter = Make(500, SlidingExtremum::MAXIMUM);
    filter->Add(5);
    EXPECT_EQ(filter->Maximum(), 5);
    EXPECT_EQ(filter->Minimum(), 5);
}

TEST(SlidingExtremum, IsFullOnceTheWritePositionHasWrapped)
{
    for (const int32_t length : { 1, 3, 32, 500 }) {
        const auto filter = Make(length, SlidingExtremum::MAXIMUM);
        for (int32_t i = 0; i < length - 1; ++i)
            filter->Add(1);
        EXPECT_FALSE(filter->IsFull()) << length;
        filter->Add(1);
        EXPECT_TRUE(filter->IsFull()) << length;
    }
}

TEST(SlidingExtremum, InTheLinearFormTheFullFlagSurvivesAReset)
{
    const auto filter = Make(2, SlidingExtremum::MAXIMUM);
    AddAll(*filter, { 1, 2 });
    filter->Reset(0);
    EXPECT_TRUE(filter->IsFull());
    EXPECT_EQ(filter->Maximum(), 0);
    EXPECT_EQ(filter->Minimum(), 0);
}

TEST(SlidingExtremum, AResetStartsAgainAtTheFirstPlace)
{
    const auto filter = Make(3, SlidingExtremum::MAXIMUM);
    AddAll(*filter, { 1, 2 });
    filter->Reset(0);
    AddAll(*filter, { 9, 1, 2 });
    AddAll(*filter, { 3 }); // takes the place of the 9
    EXPECT_EQ(filter->Maximum(), 3);
}

TEST(SlidingExtremum, InTheMapFormAResetForgetsThatTheWindowWasFull)
{
    const auto filter = Make(500, SlidingExtremum::MAXIMUM);
    for (int32_t i = 0; i < 500; ++i)
        filter->Add(i);
    EXPECT_TRUE(filter->IsFull());
    filter->Reset(-4);
    EXPECT_FALSE(filter->IsFull());
    EXPECT_EQ(filter->Maximum(), -4); // the map is empty: what was stored
    EXPECT_EQ(filter->Minimum(), -4);
    filter->Add(-9);
    EXPECT_EQ(filter->Maximum(), -9); // the refill is not in the map
}

TEST(SlidingExtremum, TheMapFormFollowsTheLast500Samples)
{
    constexpr size_t LENGTH = 500;
    const auto filter = Make(LENGTH, SlidingExtremum::MAXIMUM);
    std::deque<int32_t> window;
    std::minstd_rand random(4711);
    for (int i = 0; i < 5000; ++i) {
        const auto sample = static_cast<int32_t>(random() % 97);
        filter->Add(sample);
        window.push_back(sample);
        if (window.size() > LENGTH)
            window.pop_front();
        ASSERT_EQ(filter->Maximum(), *std::max_element(window.begin(), window.end())) << "sample " << i;
        ASSERT_EQ(filter->Minimum(), *std::min_element(window.begin(), window.end())) << "sample " << i;
    }
}

TEST(SlidingExtremum, AValueStaysInTheMapUntilItsLastCopyLeaves)
{
    const auto filter = Make(500, SlidingExtremum::MAXIMUM);
    filter->Add(100);
    filter->Add(100);
    for (int i = 0; i < 498; ++i)
        filter->Add(1);
    EXPECT_EQ(filter->Maximum(), 100);
    filter->Add(1); // the first copy leaves
    EXPECT_EQ(filter->Maximum(), 100);
    filter->Add(1);
    EXPECT_EQ(filter->Maximum(), 1);
}

TEST(SlidingExtremum, ASampleThatReplacesItsEqualChangesNothing)
{
    const auto filter = Make(500, SlidingExtremum::MAXIMUM);
    filter->Add(100);
    for (int i = 0; i < 499; ++i)
        filter->Add(1);
    filter->Add(100); // in the place of the first 100
    EXPECT_EQ(filter->Maximum(), 100);
    for (int i = 0; i < 499; ++i)
        filter->Add(1);
    EXPECT_EQ(filter->Maximum(), 100);
    filter->Add(1);
    EXPECT_EQ(filter->Maximum(), 1);
}

TEST(SlidingExtremum, TheMapOrdersItsKeysAsUnsignedNumbers)
{
    const auto filter = Make(500, SlidingExtremum::MAXIMUM);
    filter->Add(5);
    filter->Add(-1);
    EXPECT_EQ(filter->Maximum(), -1);
    EXPECT_EQ(filter->Minimum(), 5);
}

TEST(SlidingExtremum, AFailedAllocationClearsTheFlag)
{
    bool ok = true;
    const FailNthAllocation failure(1);
    const SlidingExtremum filter(ok, 32, SlidingExtremum::MAXIMUM);
    EXPECT_TRUE(failure.Fired());
    EXPECT_FALSE(ok);
}

} // namespace
