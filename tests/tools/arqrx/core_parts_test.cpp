#include <gtest/gtest.h>

#include <cmath>

#include "arqrx/core/asker.h"
#include "arqrx/core/block_pool.h"
#include "arqrx/core/clock_follower.h"
#include "arqrx/core/missing_list.h"
#include "arqrx/core/packet_buffer.h"
#include "arqrx/core/receiver.h"
#include "arqrx/core/recover_times.h"
#include "tools/arqrx/core_script.h"

namespace arqrx {
namespace {

struct Entry {
    uint64_t index = 0;
    int value = 0;
};

TEST(ArqrxNumberRing, GrowsWithTheSpanAndKeepsWhatIsThere)
{
    NumberRing<Entry> ring;
    EXPECT_EQ(ring.Find(5), nullptr);
    for (uint64_t index = 70'000; index < 70'000 + 65'536; ++index) {
        ASSERT_TRUE(ring.Reach(70'000, index));
        ring.Place(index) = { index, static_cast<int>(index % 1000) };
        if (index % 3 == 0)
            ring.Mark(index);
    }
    for (uint64_t index = 70'000; index < 70'000 + 65'536; ++index) {
        ASSERT_NE(ring.Find(index), nullptr);
        ASSERT_EQ(ring.Find(index)->value, static_cast<int>(index % 1000));
        const uint64_t marked = (index + 2) / 3 * 3;
        ASSERT_EQ(ring.NextMarked(index, 70'000 + 65'536), std::min<uint64_t>(marked, 70'000 + 65'536));
    }
    EXPECT_FALSE(ring.Reach(70'000, 70'000 + 65'536));
    EXPECT_TRUE(ring.Reach(70'001, 70'000 + 65'536));
    EXPECT_EQ(ring.Find(69'999), nullptr);
}

TEST(ArqrxNumberRing, NextMarkedEndsAtTheEndOfTheRange)
{
    NumberRing<Entry> ring;
    ASSERT_TRUE(ring.Reach(1'000'000, 1'000'200));
    ring.Mark(1'000'100);
    EXPECT_EQ(ring.NextMarked(1'000'000, 1'000'100), 1'000'100U);
    EXPECT_EQ(ring.NextMarked(1'000'000, 1'000'099), 1'000'099U);
    EXPECT_EQ(ring.NextMarked(1'000'000, 1'000'101), 1'000'100U);
    EXPECT_EQ(ring.NextMarked(1'000'101, 1'000'150), 1'000'150U);
    ring.Unmark(1'000'100);
    EXPECT_EQ(ring.NextMarked(1'000'000, 1'000'101), 1'000'101U);
}

TEST(ArqrxBlockPool, GivesAsManyAsItMayAndTakesThemBack)
{
    BlockPool pool(100);
    std::vector<uint8_t*> blocks;
    for (int i = 0; i < 100; ++i)
        blocks.push_back(pool.Take());
    EXPECT_EQ(std::set<uint8_t*>(blocks.begin(), blocks.end()).size(), 100U);
    EXPECT_EQ(pool.Take(), nullptr);
    pool.Give(blocks.back());
    EXPECT_EQ(pool.Take(), blocks.back());
    EXPECT_EQ(pool.Out(), 100U);
}

TEST(ArqrxMissingList, QueuesKeepTheirOrderWhateverLeavesThem)
{
    MissingList missing;
    ASSERT_TRUE(missing.Reach(1000, 1010));
    for (uint64_t index = 1000; index < 1005; ++index)
        missing.Add(index, 0, 0);
    missing.Remove(missing.At(1000));
    missing.Move(missing.At(1002), Gap::Turn::Again);
    missing.Move(missing.At(1001), Gap::Turn::Again);
    missing.Remove(missing.At(1004));
    EXPECT_EQ(missing.FirstOf(Gap::Turn::First)->index, 1003U);
    EXPECT_EQ(missing.FirstOf(Gap::Turn::Again)->index, 1002U);
    missing.Move(missing.At(1003), Gap::Turn::Now);
    EXPECT_EQ(missing.Due(), 1U);
    EXPECT_EQ(missing.FirstOf(Gap::Turn::First), nullptr);
    missing.Remove(missing.At(1003));
    EXPECT_EQ(missing.Due(), 0U);
    missing.Remove(missing.At(1002));
    EXPECT_EQ(missing.FirstOf(Gap::Turn::Again)->index, 1001U);
    EXPECT_EQ(missing.Next(1000, 1010), 1001U);
    EXPECT_EQ(missing.Find(1002), nullptr);
}

TEST(ArqrxAsker, ARequestIsInTheOrderOfNumbersWhateverTheOrderOfTurns)
{
    MissingList missing;
    ASSERT_TRUE(missing.Reach(1000, 1100));
    const ReorderTolerance tolerance;
    const RoundTrip roundTrip;
    Asker asker(Settings {}, missing, tolerance, roundTrip);
    for (const uint64_t index : { 1050U, 1010U, 1090U })
        missing.Add(index, 0, 1'000'000);
    Figures figures;
    const Newest newest { 1100, 2100, 1000 };
    asker.Advance(newest, true, 1000, figures);
    const std::span<const uint16_t> numbers = asker.TakeRequest(newest, 1000);
    EXPECT_EQ(
        std::vector<uint16_t>(numbers.begin(), numbers.end()), (std::vector<uint16_t> { 2010, 2050, 2090 }));
}

// Packets each 10 ms from `firstMs` on, which arrive so much after their timestamps.
void AddRow(ClockFollower& clock, int64_t firstMs, int64_t lastMs, int64_t behindUs)
{
    for (int64_t ms = firstMs; ms < lastMs; ms += 10)
        (void)clock.Add(ms * 1000, ms * 1000 + behindUs);
}

TEST(ArqrxClockFollower, AnErrorIsMadeUpForWithinAWindowAndNotThroughASilence)
{
    ClockFollower clock(0, 0);
    clock.Settle();
    AddRow(clock, 0, 6010, 4000);
    const int64_t behindUs = clock.LocalUs(8'000'000) - 8'000'000;
    EXPECT_GT(behindUs, 1000);
    EXPECT_LT(behindUs, 4000);
    const int64_t hourUs = 3'600'000'000;
    const double driftUs = -clock.DriftPpm() * (3600 - 8);
    EXPECT_NEAR(
        static_cast<double>(clock.LocalUs(hourUs) - hourUs), static_cast<double>(behindUs) + driftUs, 100);
}

TEST(ArqrxClockFollower, ALargeErrorIsNotTakenForDrift)
{
    ClockFollower clock(0, 0);
    clock.Settle();
    AddRow(clock, 0, 20'000, 150'000);
    EXPECT_EQ(clock.DriftPpm(), 0);
    EXPECT_FALSE(std::signbit(clock.DriftPpm())) << "reports print -0";
    EXPECT_NEAR(static_cast<double>(clock.LocalUs(20'000'000) - 20'000'000), 18 * 2000, 2100)
        << "2000 ppm at most";
}

TEST(ArqrxRecoverTimes, PercentilesAreOfTheLastThousandAndTwentyFour)
{
    RecoverTimes times;
    EXPECT_EQ(times.Percentile(50), -1);
    times.Add(7);
    EXPECT_EQ(times.Percentile(1), 7);
    EXPECT_EQ(times.Percentile(100), 7);
    for (int i = 1; i <= 100; ++i)
        times.Add(i);
    EXPECT_EQ(times.Percentile(50), 50);
    for (int i = 1; i <= 1024; ++i)
        times.Add(10'000 + i);
    EXPECT_EQ(times.Percentile(50), 10'512);
    EXPECT_EQ(times.Percentile(99), 11'014);
    EXPECT_EQ(times.Percentile(100), 11'024);
    times.Add(int64_t { 1 } << 40);
    EXPECT_EQ(times.Percentile(100), UINT32_MAX);
}

TEST(ArqrxPacketBuffer, WhatDoesNotFitIsLostAndCounted)
{
    Settings settings;
    settings.mostPackets = 10;
    test::Script script(settings);
    for (int number = 0; number < 15; ++number)
        script.ComeEven(number);
    EXPECT_EQ(script.Counted().buffered, 10U);
    EXPECT_EQ(script.Counted().overflows, 5U);
    EXPECT_EQ(script.Counted().lost, 5U);
    EXPECT_EQ(script.Counted().bufferedUs, 14'000);
    script.RunUntil(700'000);
    script.ComeEven(700);
    script.RunUntil(2'000'000);
    EXPECT_EQ(script.played.size(), 11U);
    EXPECT_EQ(script.played.back().lostBefore, 690U);
    EXPECT_FALSE(script.isIdentityBroken);
}

TEST(ArqrxPacketBuffer, ASpanOf65536NumbersIsTheMost)
{
    Settings settings;
    settings.latencyUs = 200'000'000;
    test::Script script(settings);
    for (int number = 0; number < 65'536; ++number)
        script.ComeEven(number);
    EXPECT_EQ(script.Counted().buffered, 65'536U);
    EXPECT_EQ(script.Counted().overflows, 0U);
    script.ComeEven(65'536);
    EXPECT_EQ(script.Counted().overflows, 1U);
    script.RunUntil(300'000'000);
    EXPECT_EQ(script.played.size(), 65'536U);
    EXPECT_EQ(script.Counted().lost, 0U) << "nothing is known of what had no place";
}

TEST(ArqrxReceiver, EndOfStreamLosesWhatIsMissingAndPlaysTheRestAtItsTime)
{
    test::Script script;
    for (const int number : { 0, 1, 5 })
        script.ComeEven(number);
    script.receiver.EndOfStream(6000);
    EXPECT_EQ(script.Counted().lost, 3U);
    EXPECT_EQ(script.Counted().played, 0U);
    script.RunUntil(1'000'000);
    ASSERT_EQ(script.played.size(), 3U);
    EXPECT_EQ(script.played.back().atUs, 605'000);
    EXPECT_EQ(script.played.back().lostBefore, 3U);
    EXPECT_TRUE(script.AllAsked().empty());
}

TEST(ArqrxReceiver, ARecoveredPacketThatComesAfterItsTimePlaysAtOnce)
{
    test::Script script;
    for (const int number : { 0, 1, 50 })
        script.ComeEven(number);
    script.RunUntil(620'000);
    EXPECT_EQ(script.played.size(), 2U);
    script.ComeAgain(10, 630'000);
    ASSERT_EQ(script.played.size(), 3U);
    EXPECT_EQ(script.played.back().atUs, 630'000);
    EXPECT_EQ(script.played.back().dueUs, 610'000);
    EXPECT_EQ(script.Counted().lost, 8U) << "what is before it";
    script.RunUntil(2'000'000);
    EXPECT_EQ(script.played.size(), 4U);
}

TEST(ArqrxReceiver, ATimeThatGoesBackIsTakenForTheLastOne)
{
    test::Script script;
    script.ComeEven(0);
    script.RunUntil(1'000);
    script.receiver.OnTime(700'000);
    test::Media media = test::Script::Even(700);
    media.seq = 1;
    script.Come(media, 0);
    script.RunUntil(2'000'000);
    EXPECT_EQ(script.Counted().strangers, 0U);
    ASSERT_EQ(script.played.size(), 2U);
    EXPECT_EQ(script.played.back().dueUs, 1'300'000);
}

} // namespace
} // namespace arqrx
