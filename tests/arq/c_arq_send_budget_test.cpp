// How much one request may have sent again.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>

#include "arq/wire.h"
#include "support/engine_fixture.h"

using test_support::Bytes;
using test_support::EngineTest;
using test_support::RequestWindow;
using test_support::Seqs;
using test_support::TestPacket;

namespace {

class ArqBudgetTest : public EngineTest {};

TEST_F(ArqBudgetTest, ABudgetOfBBytesSendsAtMostFloorOfBByS)
{
    constexpr uint16_t ASKED = 10;
    struct {
        uint16_t budget;
        size_t size;
        uint32_t sent;
    } const cases[] = {
        { 400, 100, 4 },
        { 399, 100, 3 },
        { 401, 100, 4 },
        { 499, 100, 4 },
        { 500, 100, 5 },
        { 99, 100, 0 },
        { 100, 100, 1 },
        { 1000, 100, 10 },
        { 999, 100, 9 },
        { 2656, 1328, 2 },
        { 2655, 1328, 1 },
        { 12, 12, 1 },
    };
    for (const auto& c : cases) {
        MakeEngine({ .bitRate = BYTES_PER_MS });
        StoreAll(1, ASKED, c.size);
        EXPECT_EQ(Ask({ 1, 2, 3, 4, 5, 6, 7, 8, 9, 10 }, { 1, c.budget, 0 }), 1U);
        EXPECT_EQ(Stats().retransmitted, c.sent) << c.budget << " / " << c.size;
        EXPECT_EQ(Stats().overBudget, ASKED - c.sent) << c.budget << " / " << c.size;
        EXPECT_EQ(m_callback.Count(), c.sent) << c.budget << " / " << c.size;
    }
}

TEST_F(ArqBudgetTest, EachRequestHasTheWholeBudget)
{
    MakeEngine({ .bitRate = BYTES_PER_MS });
    StoreAll(1, 8);
    EXPECT_EQ(Ask({ 1, 2, 3, 4 }, { 1, 400, 0 }), 1U);
    EXPECT_EQ(Ask({ 5, 6, 7, 8 }, { 1, 400, 0 }), 1U);
    EXPECT_EQ(m_callback.Count(), 8U);
    EXPECT_EQ(Stats().overBudget, 0U);
}

TEST_F(ArqBudgetTest, TheExtraDelayAddsToTheBudget)
{
    MakeEngine({ .bitRate = BYTES_PER_MS });
    StoreAll(1, 4);
    EXPECT_EQ(Ask({ 1, 2, 3, 4 }, { 1, 100, 100 }), 1U);
    EXPECT_EQ(m_callback.Count(), 2U);
}

// 400 ms at 50 Mbit/s: the product wraps and leaves 352,516 bytes, 265 packets of 1328 bytes.
TEST_F(ArqBudgetTest, TheDefaultBudgetWrapsTo352516Bytes)
{
    constexpr uint16_t ASKED = 300;
    constexpr uint32_t SENT = 265;
    static_assert(352516 / 1328 == SENT);
    MakeEngine({ .bitRate = 50000000, .ringSize = 512 });
    StoreAll(1, ASKED, 1328);
    Seqs seqs;
    for (uint16_t seq = 1; seq <= ASKED; ++seq)
        seqs.push_back(seq);
    EXPECT_EQ(Ask(seqs), 1U);
    EXPECT_EQ(m_callback.Count(), SENT);
    EXPECT_EQ(Stats().retransmitted, SENT);
    EXPECT_EQ(Stats().overBudget, ASKED - SENT);
}

TEST_F(ArqBudgetTest, ABudgetOfZeroSendsNothing)
{
    Store(5);
    EXPECT_EQ(Ask({ 5, 6, 7 }, { 0, 200, 0 }), 1U);
    EXPECT_EQ(m_callback.Count(), 0U);
    EXPECT_EQ(Stats().overBudget, 3U);
}

TEST_F(ArqBudgetTest, TheFirstOverrunEndsTheListEvenIfASmallerPacketWouldFit)
{
    MakeEngine({ .bitRate = BYTES_PER_MS });
    Store(1, NOW, 100);
    Store(2, NOW, 400);
    Store(3, NOW, 20);
    EXPECT_EQ(Ask({ 1, 2, 3, 40, 41 }, { 1, 300, 0 }), 1U);
    EXPECT_EQ(SentSeqs(), Seqs { 1 });
    const ArqSendStats stats = Stats();
    EXPECT_EQ(stats.overBudget, 4U); // this number and all that follow
    EXPECT_EQ(stats.notInBuffer, 0U);
}

TEST_F(ArqBudgetTest, NothingIsQueuedForLaterWhenTheBudgetIsSpent)
{
    MakeEngine({ .bitRate = BYTES_PER_MS });
    StoreAll(1, 4);
    EXPECT_EQ(Ask({ 1, 2, 3, 4 }, { 1, 200, 0 }), 1U);
    EXPECT_EQ(SentSeqs(), (Seqs { 1, 2 }));
    EXPECT_EQ(Ask({}, { 1, 200, 0 }), 1U);
    EXPECT_EQ(m_callback.Count(), 2U);
    EXPECT_EQ(Ask({ 3, 4 }, { 1, 200, 0 }), 1U); // and neither is held off
    EXPECT_EQ(SentSeqs(), (Seqs { 1, 2, 3, 4 }));
}

TEST_F(ArqBudgetTest, APacketOverTheBudgetKeepsItsPayloadType)
{
    MakeEngine({ .bitRate = BYTES_PER_MS });
    TestPacket& packet = Store(1);
    EXPECT_EQ(Ask({ 1 }, { 1, 99, 0 }), 1U);
    EXPECT_EQ(packet.Data()[1], MEDIA_PAYLOAD_TYPE);
}

TEST_F(ArqBudgetTest, RunStatisticsStopWhereTheBudgetEnds)
{
    MakeEngine({ .bitRate = BYTES_PER_MS });
    StoreAll(10, 4);
    EXPECT_EQ(Ask({ 10, 11, 12, 13 }, { 1, 200, 0 }), 1U);
    EXPECT_EQ(m_pEngine->NextExpectedRequest(), 13U); // 12 was looked at, 13 was not
    EXPECT_EQ(Stats().longestRun, 2U);
}

TEST_F(ArqBudgetTest, OnlyPacketsPastHoldOffAndAgeCountAgainstTheBudget)
{
    MakeEngine({ .bitRate = BYTES_PER_MS });
    const RequestWindow window { 1, 200, 0 }; // 200 bytes, 400 ms
    Store(1);
    EXPECT_EQ(Ask({ 1 }, window), 1U); // held off from now on
    Store(2, NOW - 36000); // expired
    Store(3 + RING_SIZE); // takes the slot of 3
    Store(5);
    Store(6);
    Store(7);
    m_callback.Forget();
    EXPECT_EQ(Ask({ 1, 2, 3, 4, 5, 6, 7 }, window), 1U); // 4 is not in the buffer
    EXPECT_EQ(SentSeqs(), (Seqs { 5, 6 }));
    EXPECT_EQ(Stats().overBudget, 1U);
}

TEST_F(ArqBudgetTest, AllPartsOfAPacketCountAgainstTheBudget)
{
    MakeEngine({ .bitRate = BYTES_PER_MS, .headerBuilding = true });
    Bytes payload(88, 7);
    for (uint16_t seq = 1; seq <= 4; ++seq)
        (void)m_pEngine->BuildAndStore(payload.data(), 88, seq);
    EXPECT_EQ(Ask({ 1, 2, 3, 4 }, { 1, 299, 0 }), 1U); // 100 bytes each, header included
    EXPECT_EQ(m_callback.Count(), 2U);
    EXPECT_EQ(Stats().overBudget, 2U);
}

TEST_F(ArqBudgetTest, ARecordOfZeroOrMoreThanFourPartsHasSizeZero)
{
    for (const uint32_t parts : { 0U, 5U }) {
        MakeEngine({ .bitRate = BYTES_PER_MS });
        TestPacket& packet = Store(1);
        packet->partCount = parts;
        EXPECT_EQ(Ask({ 1 }, { 0, 200, 0 }), 1U); // a budget of 0
        EXPECT_EQ(m_callback.Count(), 1U) << parts << " parts";
        EXPECT_EQ(Stats().overBudget, 0U);
    }
}

} // namespace
