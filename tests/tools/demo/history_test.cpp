#include "demo/history.h"

#include <gtest/gtest.h>

#include "demo/phases.h"
#include "demo/run_table.h"

TEST(History, ColumnsDivideTheRunAndNothingIsCountedTwiceOrLeftOut)
{
    demo::History history(3'000'000);
    ASSERT_EQ(history.All().size(), 30U);
    for (int64_t time = 0; time < 3'000'000; time += 10'000)
        ++history.At(time).sent;
    for (const int columns : { 1, 7, 29, 30 }) {
        uint32_t sum = 0;
        for (int column = 0; column < columns; ++column)
            sum += history.Column(column, columns).sent;
        EXPECT_EQ(sum, 300U) << columns;
    }
    for (int column = 0; column < 200; ++column) // finer than the stretches: each shows one
        EXPECT_EQ(history.Column(column, 200).sent, 10U);
}

TEST(History, TimesOutsideTheRunCountAtItsEnds)
{
    demo::History history(1'000'000);
    ++history.At(-5).sent;
    ++history.At(99'000'000).sent;
    EXPECT_EQ(history.All().front().sent, 1U);
    EXPECT_EQ(history.All().back().sent, 1U);
}

TEST(Phases, AreCleanLossyDeadAndCleanAgainWithoutAGap)
{
    for (const int64_t seconds : { 5, 30, 3600 }) {
        const auto phases = demo::Phases(seconds * 1'000'000);
        ASSERT_EQ(phases.size(), 4U);
        EXPECT_EQ(phases[0].startUs, 0);
        for (size_t i = 0; i + 1 < phases.size(); ++i)
            EXPECT_EQ(phases[i].endUs, phases[i + 1].startUs);
        EXPECT_EQ(phases[2].endUs - phases[2].startUs, 200'000);
        EXPECT_EQ(phases[3].endUs, seconds * 1'000'000);
        EXPECT_GE(phases[3].endUs - phases[3].startUs, 1'500'000); // room to recover what the burst took
    }
}

TEST(Phases, ATimeBelongsToOnePhaseAndTheEndToTheLast)
{
    const auto phases = demo::Phases(10'000'000);
    EXPECT_EQ(demo::PhaseAt(phases, 1'999'999).name, "clean");
    EXPECT_EQ(demo::PhaseAt(phases, 2'000'000).name, "5 % random");
    EXPECT_EQ(demo::PhaseAt(phases, 6'500'000).name, "burst of 200 ms");
    EXPECT_EQ(demo::PhaseAt(phases, 99'000'000).name, "clean");
}

TEST(RunTable, HasALineForEachTenthOfASecond)
{
    demo::History history(200'000);
    history.At(150'000) = { .sent = 30, .sides = { { { 3, 2, 1 }, { 3, 0, 3 } } } };
    EXPECT_EQ(demo::RunTable(history, demo::Phases(10'000'000)),
        "seconds,line,sent,a_missing,a_recovered,a_lost,b_missing,b_recovered,b_lost\r\n"
        "0.0,clean,0,0,0,0,0,0,0\r\n"
        "0.1,clean,30,3,2,1,3,0,3\r\n");
}
