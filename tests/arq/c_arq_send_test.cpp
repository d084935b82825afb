#include "arq/c_arq_send.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <memory>
#include <vector>

#include "support/allocation_hooks.h"
#include "support/engine_fixture.h"
#include "support/test_packets.h"

using test_support::AllocationCount;
using test_support::Bytes;
using test_support::BytesOf;
using test_support::Concat;
using test_support::EngineTest;
using test_support::FailNthAllocation;
using test_support::Payload;
using test_support::RtpPacket;
using test_support::TestPacket;

namespace {

// An engine with a ring of 4.
class CArqSendTest : public EngineTest {
protected:
    CArqSendTest() { MakeEngine({ .ringSize = 4 }); }
};

TEST_F(CArqSendTest, PutsItselfIntoItsCallback)
{
    EXPECT_EQ(m_callback.m_pEngine.get(), m_pEngine);
    EXPECT_EQ(m_pEngine->Magic(), 0x1928AB5CU);
}

TEST_F(CArqSendTest, StartsWithTheGivenWindowAndAllCountersAtZero)
{
    const ArqSendStats stats = Stats();
    const ArqSendStats expected { 0, 0, 0, 0, 0, 0, 2, 200 };
    EXPECT_EQ(std::memcmp(&stats, &expected, sizeof(stats)), 0);
    EXPECT_EQ(m_pEngine->MaxAgeTicks(), 54000U);
    EXPECT_EQ(m_pEngine->HoldOffTicks(), 9000U);
    EXPECT_EQ(m_pEngine->NextExpectedRequest(), 0U);
}

TEST_F(CArqSendTest, GetWindowGivesTheDelayOfTheWindow)
{
    uint32_t retries = 0;
    uint32_t intervalMs = 0;
    uint32_t delayMs = 0;
    m_pEngine->GetWindow(&retries, &intervalMs, &delayMs);
    EXPECT_EQ(retries, 2U);
    EXPECT_EQ(intervalMs, 200U);
    EXPECT_EQ(delayMs, 400U);
    EXPECT_EQ(Ask({}, { 3, 100, 7 }), 1U);
    m_pEngine->GetWindow(&retries, &intervalMs, &delayMs);
    EXPECT_EQ(retries, 3U);
    EXPECT_EQ(intervalMs, 100U);
    EXPECT_EQ(delayMs, 307U);
}

TEST_F(CArqSendTest, TheSsrcIsTheTimeOfConstructionInSeconds)
{
    const auto before = static_cast<uint32_t>(time(nullptr));
    MakeEngine();
    const auto after = static_cast<uint32_t>(time(nullptr));
    EXPECT_GE(m_pEngine->Ssrc(), before);
    EXPECT_LE(m_pEngine->Ssrc(), after);
}

TEST_F(CArqSendTest, OfFourSlotsFiveAndSixDisplaceOneAndTwo)
{
    std::vector<std::unique_ptr<TestPacket>> packets;
    for (uint16_t seq = 1; seq <= 6; ++seq) {
        packets.push_back(test_support::MakePacket(RtpPacket(seq, 1000000)));
        m_pEngine->StoreSent(packets.back()->Get());
    }
    EXPECT_EQ(Ask({ 1 }), 1U);
    EXPECT_EQ(Ask({ 2 }), 1U);
    EXPECT_EQ(m_callback.Count(), 0U);
    EXPECT_EQ(Stats().notInBuffer, 0U); // the slots hold newer packets: not counted
    EXPECT_EQ(Ask({ 3, 4, 5, 6 }), 1U);
    ASSERT_EQ(m_callback.Count(), 4U);
    for (uint16_t i = 0; i < 4; ++i)
        EXPECT_EQ(m_callback.Pointers()[i], packets[2U + i]->Get());
}

TEST_F(CArqSendTest, StoreSentTakesThePacketByPointerAndNeverCopies)
{
    TestPacket packet(RtpPacket(7, 1000000));
    m_pEngine->StoreSent(packet.Get());
    packet.Data()[12] = 0xAB; // changed after it was stored
    EXPECT_EQ(Ask({ 7 }), 1U);
    ASSERT_EQ(m_callback.Count(), 1U);
    EXPECT_EQ(m_callback.Pointers()[0], packet.Get());
    EXPECT_EQ(m_callback.Sent()[0][12], 0xAB);
}

TEST_F(CArqSendTest, StoringAgainForgetsHoldOffAndRetransmission)
{
    TestPacket first(RtpPacket(7, 1000000));
    m_pEngine->StoreSent(first.Get());
    EXPECT_EQ(Ask({ 7 }), 1U);
    EXPECT_EQ(Ask({ 7 }), 1U);
    EXPECT_EQ(m_callback.Count(), 1U); // held off
    TestPacket second(RtpPacket(7, 1000000));
    m_pEngine->StoreSent(second.Get());
    EXPECT_EQ(Ask({ 7 }), 1U);
    ASSERT_EQ(m_callback.Count(), 2U);
    EXPECT_EQ(m_callback.Pointers()[1], second.Get());
}

TEST_F(CArqSendTest, SequenceNumbersWrapIntoTheRing)
{
    TestPacket last(RtpPacket(65535, 1000000));
    TestPacket first(RtpPacket(0, 1000000));
    m_pEngine->StoreSent(last.Get());
    m_pEngine->StoreSent(first.Get());
    EXPECT_EQ(Ask({ 65535, 0 }), 1U);
    ASSERT_EQ(m_callback.Count(), 2U);
    EXPECT_EQ(m_callback.Pointers()[0], last.Get());
    EXPECT_EQ(m_callback.Pointers()[1], first.Get());
}

// Brings each of the five counters to a value of its own: 1 retransmitted, 6 not in the buffer, a run of 3,
// 4 over budget and 5 expired.
class CArqSendStatsTest : public EngineTest {
protected:
    CArqSendStatsTest()
    {
        MakeEngine({ .bitRate = BYTES_PER_MS });
        for (uint16_t seq = 10; seq < 20; ++seq)
            Store(seq, seq < 15 ? 0 : 100000, 300);
        m_clock.Set(100000);
        EXPECT_EQ(Ask({ 10, 12, 14, 11, 13 }), 1U); // five expired, no two in a row
        EXPECT_EQ(Ask({ 40, 42 }), 1U); // two not in the buffer
        EXPECT_EQ(Ask({ 15, 16, 17, 18, 19 }), 1U); // 300 of 400 bytes, then over budget with four left
        EXPECT_EQ(Ask({ 50, 51, 52, 53 }), 1U); // the longest run
    }
};

TEST_F(CArqSendStatsTest, EightWordsStandInTheOrderOfTheStatusRecord)
{
    const ArqSendStats stats = Stats();
    uint32_t words[8];
    static_assert(sizeof(words) == sizeof(stats));
    std::memcpy(words, &stats, sizeof(words));
    EXPECT_EQ(words[0], 1U); // retransmitted
    EXPECT_EQ(words[1], 6U); // not in buffer: two, and the four of the run
    EXPECT_EQ(words[2], 3U); // longest run
    EXPECT_EQ(words[3], 4U); // over budget
    EXPECT_EQ(words[4], 5U); // expired
    EXPECT_EQ(words[5], 0U); // extra delay
    EXPECT_EQ(words[6], 2U); // retries
    EXPECT_EQ(words[7], 200U); // interval
}

TEST_F(CArqSendStatsTest, ClearStatsZeroesTheFiveCountersAndKeepsTheNextExpectedRequest)
{
    EXPECT_EQ(m_pEngine->NextExpectedRequest(), 54U);
    m_pEngine->ClearStats();
    const ArqSendStats stats = Stats();
    const ArqSendStats expected { 0, 0, 0, 0, 0, 0, 2, 200 };
    EXPECT_EQ(std::memcmp(&stats, &expected, sizeof(stats)), 0);
    EXPECT_EQ(m_pEngine->NextExpectedRequest(), 54U);
}

TEST_F(CArqSendTest, ClearRingForgetsPacketsAndTheNextExpectedRequestButNoCounter)
{
    TestPacket packet(RtpPacket(7, 1000000));
    m_pEngine->StoreSent(packet.Get());
    EXPECT_EQ(Ask({ 7 }), 1U);
    EXPECT_EQ(m_pEngine->NextExpectedRequest(), 8U);
    m_pEngine->ClearRing();
    EXPECT_EQ(m_pEngine->NextExpectedRequest(), 0U);
    EXPECT_EQ(Stats().retransmitted, 1U);
    m_clock.Advance(20000);
    EXPECT_EQ(Ask({ 7 }), 1U);
    EXPECT_EQ(m_callback.Count(), 1U);
    EXPECT_EQ(Stats().notInBuffer, 1U);
}

TEST_F(CArqSendTest, ClearRingLeavesTheWindow)
{
    EXPECT_EQ(Ask({}, { 4, 300, 5 }), 1U);
    m_pEngine->ClearRing();
    EXPECT_EQ(Stats().arqRetries, 4U);
    EXPECT_EQ(m_pEngine->MaxAgeTicks(), 135450U);
}

TEST_F(CArqSendTest, TheDebugFlagChangesNothing)
{
    m_pEngine->SetDebug(1);
    TestPacket packet(RtpPacket(7, 1000000));
    m_pEngine->StoreSent(packet.Get());
    EXPECT_EQ(Ask({ 7 }), 1U);
    EXPECT_EQ(m_callback.Count(), 1U);
}

TEST_F(CArqSendTest, StoringAndBuildingAllocateNothing)
{
    MakeEngine({ .ringSize = 4, .headerBuilding = true });
    TestPacket packet(RtpPacket(7, 1000000));
    Bytes payload = Payload(1316);
    const AllocationCount allocations;
    for (uint16_t i = 0; i < 100; ++i) {
        m_pEngine->StoreSent(packet.Get());
        (void)m_pEngine->BuildAndStore(payload.data(), 1316, i);
    }
    EXPECT_EQ(allocations.Count(), 0U);
}

TEST(CArqSend, OfTwoSlotsWithoutCallbackAndClockConstructsAndDestroys)
{
    bool ok = true;
    auto* engine = new CArqSend(ok, nullptr, nullptr, 0, 0, 2, 0, false);
    EXPECT_TRUE(ok);
    EXPECT_EQ(engine->HoldOffTicks(), 0U);
    EXPECT_EQ(engine->MaxAgeTicks(), 0U);
    DestroyEngine(engine);
}

TEST(CArqSend, TheHoldOffIsHalfTheIntervalOfConstruction)
{
    bool ok = true;
    const CArqSend engine(ok, nullptr, nullptr, 5, 60, 2, 0, false);
    EXPECT_EQ(engine.HoldOffTicks(), 2700U);
    EXPECT_EQ(engine.MaxAgeTicks(), 32400U);
}

TEST(CArqSend, AnyFailedAllocationClearsTheFlagAndLeaksNothing)
{
    constexpr int ALLOCATIONS = 3; // slots, flags, built packets
    for (int n = 1; n <= ALLOCATIONS; ++n) {
        bool ok = true;
        const FailNthAllocation failure(n);
        const CArqSend engine(ok, nullptr, nullptr, 2, 200, 16, 0, true);
        EXPECT_TRUE(failure.Fired()) << "allocation " << n;
        EXPECT_FALSE(ok) << "allocation " << n;
    }
    bool ok = true;
    const AllocationCount allocations;
    const CArqSend engine(ok, nullptr, nullptr, 2, 200, 16, 0, true);
    EXPECT_TRUE(ok);
    EXPECT_EQ(allocations.Count(), static_cast<uint64_t>(ALLOCATIONS));
}

TEST(CArqSend, WithoutHeaderBuildingThereIsNoRoomForHeaders)
{
    bool ok = true;
    const AllocationCount allocations;
    const CArqSend engine(ok, nullptr, nullptr, 2, 200, 16, 0, false);
    EXPECT_EQ(allocations.Count(), 2U);
}

TEST(CArqSend, SuccessLeavesTheFlagAsItWas)
{
    bool ok = false;
    const CArqSend engine(ok, nullptr, nullptr, 2, 200, 16, 0, false);
    EXPECT_FALSE(ok);
}

// An engine that tells when it is destroyed and shows any validity word.
class MagicEngine : public ArqSend {
public:
    MagicEngine(uint32_t magic, int& destroyed) : m_nMagic(magic), m_nDestroyed(destroyed) {}
    ~MagicEngine() override { ++m_nDestroyed; }
    void StoreSent(PacketBuffer* /*packet*/) override {}
    PacketBuffer* BuildAndStore(uint8_t* /*payload*/, int32_t /*length*/, uint16_t /*seq*/) override
    {
        return nullptr;
    }
    uint32_t ProcessBuffer(PacketBuffer* /*packet*/) override { return 1; }
    void GetStats(ArqSendStats* /*out*/) override {}
    void ClearStats() override {}
    void ClearRing() override {}
    void SetDebug(uint8_t /*flag*/) override {}
    uint32_t Magic() const override { return m_nMagic; }

private:
    uint32_t m_nMagic;
    int& m_nDestroyed;
};

TEST(DestroyEngine, DestroysWithTheRightMagicOnly)
{
    int destroyed = 0;
    DestroyEngine(new MagicEngine(0x1928AB5C, destroyed));
    EXPECT_EQ(destroyed, 1);
    const auto wrong = std::make_unique<MagicEngine>(0x1928AB5D, destroyed);
    DestroyEngine(wrong.get());
    EXPECT_EQ(destroyed, 1);
}

TEST(DestroyEngine, SurvivesNull)
{
    EXPECT_EXIT(
        {
            DestroyEngine(nullptr);
            _exit(0);
        },
        testing::ExitedWithCode(0), "");
}

} // namespace
