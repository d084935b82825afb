#include <gtest/gtest.h>

#include <cmath>

#include "arqctl/core/history.h"

namespace arqctl::history_ring_test {

HistorySample Flat(float value)
{
    HistorySample sample;
    sample.fill(value);
    return sample;
}

const std::vector<float>& ValuesOf(const History::Columns& columns, Curve curve)
{
    return columns.values[static_cast<size_t>(curve)];
}

// The input's rates, NaN as -1.
std::vector<float> Inputs(const History::Columns& columns)
{
    std::vector<float> values = ValuesOf(columns, Curve::InputBitRate);
    for (float& value : values)
        value = std::isnan(value) ? -1 : value;
    return values;
}

TEST(ChannelHistory, SecondsComeBackInOrderUpToTheOneAskedFor)
{
    History history;
    for (int second = 1000; second < 1100; second++)
        history.Add(second, Flat(static_cast<float>(second)));
    const History::Columns columns = history.Read(1099, 60, 600);
    EXPECT_EQ(columns.stepSeconds, 1);
    ASSERT_EQ(columns.seconds.size(), 60U);
    EXPECT_EQ(columns.seconds.front(), 1040);
    EXPECT_EQ(columns.seconds.back(), 1099);
    EXPECT_EQ(Inputs(columns).front(), 1040.0F);
    EXPECT_EQ(Inputs(columns).back(), 1099.0F);
}

TEST(ChannelHistory, WhatWasLeftOutIsAGapAndNotZero)
{
    History history;
    history.Add(100, Flat(1));
    history.Add(103, Flat(4));
    const std::vector<float> expected { -1, 1, -1, -1, 4, -1 };
    EXPECT_EQ(Inputs(history.Read(104, 6, 600)), expected);
}

TEST(ChannelHistory, AGapLongerThanTheRingLeavesNothingOfTheRoundBefore)
{
    History history;
    for (int second = 0; second < 5000; second++)
        history.Add(second, Flat(1));
    history.Add(20'000, Flat(2));
    const std::vector<float> values = Inputs(history.Read(20'000, 3600, 1000));
    EXPECT_EQ(values.back(), 2.0F);
    for (size_t step = 0; step + 1 < values.size(); step++)
        EXPECT_EQ(values[step], -1.0F) << step;
}

TEST(ChannelHistory, ASecondThatIsNotNewerIsIgnored)
{
    History history;
    history.Add(100, Flat(1));
    history.Add(100, Flat(2));
    history.Add(99, Flat(3));
    EXPECT_EQ(Inputs(history.Read(100, 2, 600)), (std::vector<float> { -1, 1 }));
}

TEST(ChannelHistory, AnHourIsKeptBySecondsAndNoMore)
{
    History history;
    for (int second = 0; second < 7200; second++)
        history.Add(second, Flat(static_cast<float>(second)));
    const std::vector<float> all = Inputs(history.Read(7199, 3600, 3600));
    ASSERT_EQ(all.size(), 3600U);
    EXPECT_EQ(all.front(), 3600.0F);
    const std::vector<float> older
        = Inputs(history.Read(7100, 3600, 3600)); // 3501 to 7100: the first 99 are gone
    EXPECT_EQ(older[98], -1.0F);
    EXPECT_EQ(older[99], 3600.0F);
}

TEST(ChannelHistory, ThinningTakesTheMeanOfWhatIsKnownAndTheLargestLoss)
{
    HistorySample quiet = Flat(2);
    HistorySample lossy = Flat(6);
    const std::vector<HistorySample> samples { quiet, UnknownSample(), lossy };
    const HistorySample thinned = Thinned(samples);
    EXPECT_EQ(thinned[static_cast<size_t>(Curve::InputBitRate)], 4.0F);
    EXPECT_EQ(thinned[static_cast<size_t>(Curve::Lost)], 6.0F);
    EXPECT_EQ(thinned[static_cast<size_t>(Curve::ReportedLost)], 6.0F);
    EXPECT_EQ(thinned[static_cast<size_t>(Curve::Withheld)], 4.0F);
    EXPECT_TRUE(std::isnan(Thinned({ UnknownSample() })[0]));
}

TEST(ChannelHistory, NeverMorePointsThanAskedForAndAllOfOneStep)
{
    History history;
    for (int second = 0; second < 90'000; second++)
        history.Add(second, Flat(static_cast<float>(second % 7)));
    for (const int64_t span : { 60, 61, 300, 3599, 3600, 3601, 10'000, 86'400 }) {
        for (const int64_t points : { 1, 2, 7, 600, 1000 }) {
            const History::Columns columns = history.Read(89'999, span, points);
            ASSERT_LE(static_cast<int64_t>(columns.seconds.size()), points) << span;
            ASSERT_GE(columns.seconds.size(), 1U);
            ASSERT_GE(columns.stepSeconds * points, span);
            for (size_t step = 1; step < columns.seconds.size(); step++)
                ASSERT_EQ(columns.seconds[step] - columns.seconds[step - 1], columns.stepSeconds);
            ASSERT_LE(89'999 - columns.seconds.back(), columns.stepSeconds);
            for (const float value : Inputs(columns))
                ASSERT_GE(value, 0.0F) << span << " " << points;
        }
    }
}

TEST(ChannelHistory, ADayIsKeptByTensOfSeconds)
{
    History history;
    for (int second = 0; second < 200'000; second++)
        history.Add(second, Flat(static_cast<float>(second / 10)));
    const History::Columns columns = history.Read(199'999, 86'400, 8640);
    EXPECT_EQ(columns.stepSeconds, 10);
    EXPECT_EQ(columns.seconds.size(), 8640U);
    EXPECT_EQ(columns.seconds.front(), 113'600);
    EXPECT_EQ(Inputs(columns).front(), 11'360.0F);
    EXPECT_EQ(Inputs(columns).back(), 19'999.0F);
}

TEST(ChannelHistory, BeforeTheFirstSampleAndBeforeTheClockBeganAreGaps)
{
    History history;
    history.Add(0, Flat(1));
    history.Add(29, Flat(2));
    const History::Columns columns = history.Read(30, 60, 600);
    ASSERT_EQ(columns.seconds.size(), 60U);
    EXPECT_EQ(columns.seconds.front(), -29);
    for (size_t step = 0; step < 60; step++)
        EXPECT_EQ(Inputs(columns)[step], step == 29 ? 1.0F : step == 58 ? 2.0F : -1.0F) << step;
    EXPECT_EQ(history.Read(30, 86'400, 1000).seconds.size(), 960U);
}

} // namespace arqctl::history_ring_test
