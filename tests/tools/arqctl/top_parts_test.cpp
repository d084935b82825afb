#include <gtest/gtest.h>

#include "arqctl/top/amount_text.h"
#include "arqctl/top/chart.h"
#include "arqctl/top/recent_history.h"

namespace arqctl::top {
namespace {

constexpr int64_t SECOND = 1'000'000;

TEST(TopAmounts, BitRatesHaveThreeDigitsAndAUnit)
{
    EXPECT_EQ(BitRateText(0), "0 bit/s");
    EXPECT_EQ(BitRateText(999), "999 bit/s");
    EXPECT_EQ(BitRateText(999.5), "1.00 kbit/s");
    EXPECT_EQ(BitRateText(12'345'678), "12.3 Mbit/s");
    EXPECT_EQ(BitRateText(99'949'000), "99.9 Mbit/s");
    EXPECT_EQ(BitRateText(99'951'000), "100 Mbit/s");
    EXPECT_EQ(BitRateText(999'600'000), "1.00 Gbit/s");
    EXPECT_EQ(BitRateText(4'294'967'295.0), "4.29 Gbit/s");
}

TEST(TopAmounts, ALittleASecondIsNotNothing)
{
    EXPECT_EQ(PerSecondText(0), "0/s");
    EXPECT_EQ(PerSecondText(0.001), "<0.1/s");
    EXPECT_EQ(PerSecondText(0.4), "0.4/s");
    EXPECT_EQ(PerSecondText(9.94), "9.9/s");
    EXPECT_EQ(PerSecondText(9.96), "10/s");
    EXPECT_EQ(PerSecondText(1234), "1.23k/s");
    EXPECT_EQ(CountText(999), "999");
    EXPECT_EQ(CountText(18'446'744'073'709'551'615U), "18447P");
}

TEST(TopAmounts, AnAgeNeverSaysMoreThanHasPassed)
{
    EXPECT_EQ(AgeText(-5), "0 s");
    EXPECT_EQ(AgeText(119 * SECOND + 999'999), "119 s");
    EXPECT_EQ(AgeText(120 * SECOND), "2 min");
    EXPECT_EQ(AgeText(7199 * SECOND), "119 min");
    EXPECT_EQ(AgeText(7200 * SECOND), "2 h");
    EXPECT_EQ(AgeText(int64_t { 172'800 } * SECOND), "2 d");
}

TEST(TopAmounts, AScaleEndsAtTheNextRoundNumber)
{
    EXPECT_EQ(RoundTop(0, 1), 1);
    EXPECT_EQ(RoundTop(1.01, 1), 2);
    EXPECT_EQ(RoundTop(2, 1), 2);
    EXPECT_EQ(RoundTop(2.01, 1), 5);
    EXPECT_EQ(RoundTop(5.01, 1), 10);
    EXPECT_EQ(RoundTop(12'300'000, 1), 20'000'000);
    EXPECT_EQ(RoundTop(1e300 * 1e300, 1), 1); // infinite
}

TEST(TopChart, AFullBarIsTheScalesEndAndALittleLeavesATrace)
{
    Grid grid(6, 2);
    DrawChart(grid, { 0, 0, 6, 2 }, { 16.0, 9.0, 8.0, 1.0, 0.001, 0.0 }, 16, true, Tone::Plain);
    EXPECT_EQ(grid.Line(0), "█▁");
    EXPECT_EQ(grid.Line(1), "███▁▁");
}

TEST(TopChart, ALetterOfAsciiIsFullerTheMoreItStandsFor)
{
    Grid grid(9, 1);
    std::vector<std::optional<double>> values;
    for (int i = 0; i <= 8; ++i)
        values.emplace_back(i);
    DrawChart(grid, { 0, 0, 9, 1 }, values, 8, false, Tone::Plain);
    EXPECT_EQ(grid.Line(0), " .:-=+*%#");
}

TEST(TopChart, AGapIsMarkedAndWhatLiesBeforeTheFirstValueIsNot)
{
    Grid grid(5, 2);
    DrawChart(
        grid, { 0, 0, 5, 2 }, { std::nullopt, 0.0, std::nullopt, 50.0, std::nullopt }, 1, false, Tone::Plain);
    EXPECT_EQ(grid.Line(0), "   #");
    EXPECT_EQ(grid.Line(1), "  ?#?");
}

TEST(TopHistory, SeveralSecondsAreTheirMeanOrForLossTheirMost)
{
    RecentHistory history;
    history.Take({ 100, 200, 0, 0, 0 }, 10 * SECOND);
    history.Take({ 300, 400, 6, 0, 0 }, 11 * SECOND);
    EXPECT_EQ(history.Over(PlotSeries::Input, 10, 2), 200);
    EXPECT_EQ(history.Over(PlotSeries::Lost, 10, 2), 6);
    EXPECT_EQ(history.Over(PlotSeries::Output, 11, 5), 400);
    EXPECT_EQ(history.Over(PlotSeries::Input, 12, 100), std::nullopt);
    EXPECT_EQ(history.Over(PlotSeries::Input, -50, 60), std::nullopt);
}

TEST(TopHistory, AnAnswerTellsOfThreeSecondsAndALongerSilenceIsAGap)
{
    RecentHistory history;
    history.Take({ 1, 0, 0, 0, 0 }, 10 * SECOND);
    history.Take({ 2, 0, 0, 0, 0 }, 13 * SECOND + 999'999);
    EXPECT_EQ(history.Over(PlotSeries::Input, 11, 1), 2);
    history.Take({ 3, 0, 0, 0, 0 }, 17 * SECOND);
    EXPECT_EQ(history.Over(PlotSeries::Input, 14, 3), std::nullopt);
    EXPECT_EQ(history.Over(PlotSeries::Input, 17, 1), 3);
    history.Take({ 4, 0, 0, 0, 0 }, 17 * SECOND + 500'000);
    EXPECT_EQ(history.Over(PlotSeries::Input, 17, 1), 4);
}

TEST(TopHistory, AfterAQuarterOfAnHourTheOldestIsForgotten)
{
    RecentHistory history;
    for (int64_t second = 100; second <= 100 + RecentHistory::SECONDS; ++second)
        history.Take({ static_cast<double>(second), 0, 0, 0, 0 }, second * SECOND);
    EXPECT_EQ(history.Over(PlotSeries::Input, 100, 1), std::nullopt);
    EXPECT_EQ(history.Over(PlotSeries::Input, 101, 1), 101);
}

TEST(TopGrid, WhatLiesOutsideIsNotDrawn)
{
    Grid grid(4, 2);
    grid.Put(2, 0, "abcd", Tone::Bad);
    grid.Put(-2, 1, "abcd");
    grid.PutRight(4, 1, "z");
    for (const int row : { -1, 2 })
        grid.Put(0, row, "x");
    EXPECT_EQ(grid.Line(0), "  ab");
    EXPECT_EQ(grid.Tones(0), "  bb");
    EXPECT_EQ(grid.Line(1), "cd z");
    EXPECT_EQ(Grid(-3, 5).Rows(), 5);
    EXPECT_EQ(Grid(0, 0).Columns(), 0);
}

TEST(TopGrid, LettersThatMayNotBeOneCellAndBrokenOnesBecomeQuestionMarks)
{
    Grid grid(20, 1);
    grid.Put(0, 0, "\x1b[1m é\xe6\xbc\xa2 \xff \xc3");
    EXPECT_EQ(grid.Line(0), "?[1m é? ? ?");
}

TEST(TopGrid, ATextIsCutWhereItTellsLeastAndWrappedAtBlanks)
{
    EXPECT_EQ(CutFront("/tmp/long/ctrl1", 8), "../ctrl1");
    EXPECT_EQ(CutBack("nobody listens", 8), "nobody..");
    EXPECT_EQ(CutFront("abc", 3), "abc");
    EXPECT_EQ(CutFront("abc", 1), ".");
    EXPECT_EQ(CutBack("abc", -1), "");
    EXPECT_EQ(WrapText("one two three", 7), (std::vector<std::string> { "one two", "three" }));
    EXPECT_EQ(WrapText("abcdefgh", 3), (std::vector<std::string> { "abc", "def", "gh" }));
    EXPECT_EQ(WrapText("ab", 0), (std::vector<std::string> { "a", "b" }));
}

} // namespace
} // namespace arqctl::top
