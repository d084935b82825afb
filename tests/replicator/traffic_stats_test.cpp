#include "replicator/traffic_stats.h"

#include <initializer_list>
#include <type_traits>

#include <gtest/gtest.h>

namespace {

// Packets are counted past 2^32.
static_assert(std::is_same_v<decltype(ReceiveStats::m_nRxPackets), PlainWord<uint64_t>>);
static_assert(std::is_same_v<decltype(TransmitStats::m_nTxPackets), PlainWord<uint64_t>>);

int32_t LossAfter(std::initializer_list<uint16_t> numbers)
{
    ReceiveStats stats;
    stats.Reset();
    for (const uint16_t number : numbers)
        stats.CountSequence(number);
    return stats.m_nRxLoss;
}

TEST(ReceiveStats, AGapAddsTheNumberOfMissingPackets)
{
    EXPECT_EQ(LossAfter({ 10, 11, 14 }), 2);
    EXPECT_EQ(LossAfter({ 10, 12, 14, 15 }), 2);
}

TEST(ReceiveStats, TheFirstPacketSetsTheBase)
{
    EXPECT_EQ(LossAfter({ 0 }), 0);
    EXPECT_EQ(LossAfter({ 30000, 30001 }), 0);
}

TEST(ReceiveStats, ZeroFollows65535WithoutLoss)
{
    EXPECT_EQ(LossAfter({ 65534, 65535, 0, 1 }), 0);
    EXPECT_EQ(LossAfter({ 65534, 1 }), 2);
}

TEST(ReceiveStats, ARepeatedOrLatePacketIsNoLossButTheNextIsCountedFromIt)
{
    EXPECT_EQ(LossAfter({ 10, 10 }), 0);
    EXPECT_EQ(LossAfter({ 10, 11, 9 }), 0);
    EXPECT_EQ(LossAfter({ 10, 11, 9, 10 }), 0);
    EXPECT_EQ(LossAfter({ 10, 11, 9, 12 }), 2);
}

TEST(ReceiveStats, AnAdvanceOfHalfTheNumbersOrMoreIsTakenAsLate)
{
    EXPECT_EQ(LossAfter({ 0, 32768 }), 32767);
    EXPECT_EQ(LossAfter({ 0, 32769 }), 0);
    EXPECT_EQ(LossAfter({ 0, 32769, 32771 }), 1);
}

TEST(ReceiveStats, ResetZeroesLossAndPacketsAndTheNextPacketSetsTheBase)
{
    ReceiveStats stats;
    stats.Reset();
    stats.CountSequence(1);
    stats.CountSequence(5);
    stats.m_nRxPackets = 2;
    stats.m_nRxBytes = 7;
    stats.m_nRxBitrate = 8;
    stats.Reset();
    EXPECT_EQ(stats.m_nRxLoss, 0);
    EXPECT_EQ(stats.m_nRxPackets, 0U);
    EXPECT_EQ(stats.m_nRxBytes, 7U);
    EXPECT_EQ(stats.m_nRxBitrate, 8U);
    stats.CountSequence(5000);
    EXPECT_EQ(stats.m_nRxLoss, 0);
    stats.CountSequence(5002);
    EXPECT_EQ(stats.m_nRxLoss, 1);
}

TEST(TransmitStats, ResetZeroesPacketsAndBitRateOnly)
{
    TransmitStats stats;
    stats.m_nTxPackets = 5;
    stats.m_nTxBitrate = 6;
    stats.m_nTxBytes = 7;
    stats.Reset();
    EXPECT_EQ(stats.m_nTxPackets, 0U);
    EXPECT_EQ(stats.m_nTxBitrate, 0U);
    EXPECT_EQ(stats.m_nTxBytes, 7U);
}

TEST(BitRate, IsBytesTimesEightPerSecond)
{
    EXPECT_EQ(BitRate(125000, 1000000, 0), 1000000U);
    EXPECT_EQ(BitRate(125000, 2500000, 2000000), 2000000U);
    EXPECT_EQ(BitRate(0, 1000000, 0), 0U);
}

TEST(BitRate, CutsTheFraction)
{
    EXPECT_EQ(BitRate(1, 3000000, 0), 2U);
}

TEST(BitRate, IsZeroWhenNoTimePassed)
{
    EXPECT_EQ(BitRate(125000, 77, 77), 0U);
}

TEST(BitRate, IsComputedIn64Bits)
{
    EXPECT_EQ(BitRate(500000000, 1000000, 0), 4000000000U);
    EXPECT_EQ(BitRate(0xFFFFFFFF, 8000000, 0), 0xFFFFFFFFU);
}

TEST(BitRate, TakesTheTimeAcrossTheWrapOfTheClock)
{
    EXPECT_EQ(BitRate(125000, 500000, 0xFFFFFFFFU - 499999U), 1000000U);
}

TEST(BitRate, TakesTheElapsedTimeAsSigned)
{
    EXPECT_EQ(BitRate(125, 0, 1000000), static_cast<uint32_t>(-1000));
}

} // namespace
