// Resends of packets that the engine built: a slot's header and record are rebuilt in place by the sending
// threads, so that requests send a copy, and none that was taken during a rebuild.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

#include "arq/media_header.h"
#include "base/plain_word.h"
#include "support/engine_fixture.h"

using test_support::Bytes;
using test_support::BytesOf;
using test_support::EngineTest;
using test_support::Payload;
using test_support::Seqs;

namespace {

// An engine with header building and a ring of 4.
class ArqBuildResendTest : public EngineTest {
protected:
    ArqBuildResendTest() { MakeEngine({ .ringSize = N, .headerBuilding = true }); }

    static constexpr uint16_t N = 4;

    PacketBuffer* Build(uint16_t seq) { return m_pEngine->BuildAndStore(m_payload.data(), 100, seq); }

    // Builds a packet that is older than any window.
    void BuildExpired(uint16_t seq)
    {
        m_clock.Set(NOW - MAX_AGE_TICKS);
        (void)Build(seq);
        m_clock.Set(NOW);
    }

    void ExpectNothingSentOrCounted()
    {
        EXPECT_EQ(m_callback.Count(), 0U);
        const ArqSendStats stats = Stats();
        EXPECT_EQ(stats.retransmitted + stats.notInBuffer + stats.overBudget + stats.expired, 0U);
    }

    Bytes m_payload = Payload(100);
};

TEST_F(ArqBuildResendTest, AResendIsTheBuiltPacketWithPayloadType122)
{
    Bytes expected = BytesOf(*Build(65535));
    expected[1] = 0x7A;
    EXPECT_EQ(Ask({ 65535 }), 1U);
    ASSERT_EQ(m_callback.Count(), 1U);
    EXPECT_EQ(m_callback.Sent()[0], expected);
    EXPECT_EQ(Stats().retransmitted, 1U);
}

TEST_F(ArqBuildResendTest, TheBuiltHeaderIsNeitherSentNorChanged)
{
    PacketBuffer* record = Build(1);
    const Bytes before = BytesOf(*record);
    EXPECT_EQ(Ask({ 1 }), 1U);
    ASSERT_EQ(m_callback.Count(), 1U);
    EXPECT_NE(m_callback.Pointers()[0], record);
    EXPECT_EQ(BytesOf(*record), before);
}

TEST_F(ArqBuildResendTest, TheMarkerBitOfABuiltHeaderIsKept)
{
    HeaderOf(*Build(1)).payloadType.Set(0xA1);
    EXPECT_EQ(Ask({ 1 }), 1U);
    ASSERT_EQ(m_callback.Count(), 1U);
    EXPECT_EQ(m_callback.Sent()[0][1], 0xFA);
}

TEST_F(ArqBuildResendTest, EveryLaterResendLooksTheSame)
{
    (void)Build(1);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(Ask({ 1, 1 }), 1U); // the second is held off
        m_clock.Advance(HOLD_OFF_TICKS);
    }
    ASSERT_EQ(m_callback.Count(), 3U);
    EXPECT_EQ(m_callback.Sent()[1], m_callback.Sent()[0]);
    EXPECT_EQ(m_callback.Sent()[2], m_callback.Sent()[0]);
}

TEST_F(ArqBuildResendTest, APacketThatCameWithItsHeaderIsStillMarkedInPlace)
{
    test_support::TestPacket& packet = Store(1);
    EXPECT_EQ(Ask({ 1 }), 1U);
    ASSERT_EQ(m_callback.Count(), 1U);
    EXPECT_EQ(m_callback.Pointers()[0], packet.Get());
    EXPECT_EQ(packet.Data()[1], 0x7A);
}

// The clock is read between the look at the header and the copy.
TEST_F(ArqBuildResendTest, ASlotThatIsRebuiltBeforeTheCopyIsSkipped)
{
    (void)Build(1);
    m_clock.AtNextReading([this] { (void)Build(1 + N); });
    EXPECT_EQ(Ask({ 1 }), 1U);
    ExpectNothingSentOrCounted();
    EXPECT_EQ(Ask({ 1 + N }), 1U); // and the newer packet is not held off
    EXPECT_EQ(SentSeqs(), Seqs { 1 + N });
}

TEST_F(ArqBuildResendTest, ASlotThatIsRebuiltForTheSameNumberIsSkipped)
{
    (void)Build(1);
    m_clock.AtNextReading([this] { (void)Build(1); });
    EXPECT_EQ(Ask({ 1 }), 1U);
    ExpectNothingSentOrCounted();
}

// The clock is read when the record is complete and the header still the older packet's.
TEST_F(ArqBuildResendTest, ARequestThatMeetsARebuildIsSkippedWithoutACount)
{
    (void)Build(1);
    m_clock.AtNextReading([this] { EXPECT_EQ(Ask({ 1, 1 + N }), 1U); });
    (void)Build(1 + N);
    ExpectNothingSentOrCounted();
    EXPECT_EQ(Ask({ 1 + N }), 1U);
    EXPECT_EQ(SentSeqs(), Seqs { 1 + N });
}

TEST_F(ArqBuildResendTest, ASlotThatIsBeingRebuiltDoesNotEndTheRequest)
{
    (void)Build(1);
    (void)Build(2);
    m_clock.AtNextReading([this] { EXPECT_EQ(Ask({ 1, 2 }), 1U); });
    (void)Build(1 + N);
    EXPECT_EQ(SentSeqs(), Seqs { 2 });
}

TEST_F(ArqBuildResendTest, ASkippedNumberCostsNothingOfTheBudget)
{
    MakeEngine({ .bitRate = BYTES_PER_MS, .ringSize = N, .headerBuilding = true });
    (void)Build(1);
    (void)Build(2);
    m_clock.AtNextReading([this] { EXPECT_EQ(Ask({ 1, 2 }, { 1, 112, 0 }), 1U); });
    (void)Build(1 + N);
    EXPECT_EQ(SentSeqs(), Seqs { 2 });
}

TEST_F(ArqBuildResendTest, AnExpiredPacketIsForgotten)
{
    BuildExpired(1);
    EXPECT_EQ(Ask({ 1 }), 1U);
    EXPECT_EQ(Ask({ 1 }), 1U);
    EXPECT_EQ(Stats().expired, 1U);
    EXPECT_EQ(Stats().notInBuffer, 1U);
    (void)Build(1 + N);
    EXPECT_EQ(Ask({ 1 + N }), 1U);
    EXPECT_EQ(SentSeqs(), Seqs { 1 + N });
}

// Both packets have the same record: the older one's expiry must not empty the slot of the newer one.
TEST_F(ArqBuildResendTest, ExpiryDoesNotForgetThePacketOfARebuildMeanwhile)
{
    BuildExpired(1);
    m_clock.AtNextReading([this] { BuildExpired(1 + N); });
    EXPECT_EQ(Ask({ 1 }), 1U);
    ExpectNothingSentOrCounted();
    EXPECT_EQ(Ask({ 1 + N }), 1U);
    EXPECT_EQ(Stats().notInBuffer, 0U);
    EXPECT_EQ(Stats().expired, 1U);
}

// A payload for each number, which it carries. Never rewritten, as the pool's slices are not while a ring
// refers to them.
class NumberedPayloads {
public:
    NumberedPayloads()
    {
        for (uint32_t seq = 0; seq < COUNT; ++seq)
            m_numbers[seq] = static_cast<uint16_t>(seq);
    }
    uint8_t* Of(uint16_t seq) { return reinterpret_cast<uint8_t*>(&m_numbers[seq]); }
    static constexpr int32_t BYTES = sizeof(uint16_t);

private:
    static constexpr uint32_t COUNT = 65536;
    std::vector<uint16_t> m_numbers = std::vector<uint16_t>(COUNT);
};

// What a socket would read of a packet, in one plain copy: the thread sanitizer reports it when another
// thread writes there.
struct WireView {
    explicit WireView(const PacketBuffer& packet)
    {
        std::memcpy(&header, packet.parts[0], sizeof(header));
        std::memcpy(&payload, packet.parts[1], sizeof(payload));
    }
    MediaHeader header;
    uint16_t payload = 0;
};

class CheckingCallback : public CArqSendCB {
public:
    explicit CheckingCallback(bool takesTrains = false) : m_bTakesTrains(takesTrains) {}

    int32_t SendAtOnce(PacketBuffer* const* packets, int32_t count) override
    {
        if (!m_bTakesTrains)
            return 0;
        for (int32_t i = 0; i < count; ++i)
            (void)SendData(packets[i]);
        return count;
    }
    int SendData(PacketBuffer* packet) override
    {
        const WireView view(*packet);
        m_nWrongTypes += view.header.payloadType.Get() != RETRANSMIT_PAYLOAD_TYPE;
        m_nMixtures += view.header.seq.Get() != view.payload;
        m_nResends.Add(1);
        return 1;
    }
    uint32_t m_nWrongTypes = 0; // this and the next: the requesting thread only
    uint32_t m_nMixtures = 0;
    PlainWord<uint32_t> m_nResends { 0 };

private:
    const bool m_bTakesTrains;
};

// Asks again and again for all that the ring holds, the oldest number first, until told to stop.
void AskForTheWholeRing(CArqSend& engine, const PlainWord<uint16_t>& newest, const PlainWord<bool>& isOver)
{
    while (!isOver) {
        const uint16_t last = newest;
        Seqs seqs;
        for (uint16_t i = 0; i < 8; ++i)
            seqs.push_back(static_cast<uint16_t>(last - 7 + i));
        test_support::TestPacket request(test_support::Request(seqs));
        EXPECT_EQ(engine.ProcessBuffer(request.Get()), 1U);
    }
}

// With a ring of 8 the number that is asked for first is the next to be rebuilt. Under the thread sanitizer
// this also proves that no thread writes a header that another one sends.
class ArqBuildThreadsTest : public EngineTest {
protected:
    void BuildWhileTheOldestNumbersAreAskedFor(CheckingCallback& callback)
    {
        constexpr uint32_t ENOUGH_BUILT = 20000;
        constexpr uint32_t ENOUGH_RESENT = 1000;
        MakeEngine({ .ringSize = 8, .headerBuilding = true, .callback = &callback });
        NumberedPayloads payloads;
        PlainWord<uint16_t> newest { 0 };
        PlainWord<bool> isOver { false };
        std::thread listener([&] { AskForTheWholeRing(*m_pEngine, newest, isOver); });
        for (uint32_t i = 0; i < ENOUGH_BUILT || callback.m_nResends < ENOUGH_RESENT; ++i) {
            const auto seq = static_cast<uint16_t>(i);
            const PacketBuffer* record
                = m_pEngine->BuildAndStore(payloads.Of(seq), NumberedPayloads::BYTES, seq);
            const WireView first(*record);
            m_nMarkedFirst += first.header.payloadType.Get() != MEDIA_PAYLOAD_TYPE;
            m_nMixedFirst += first.header.seq.Get() != seq || first.payload != seq;
            newest = seq;
        }
        isOver = true;
        listener.join();
    }

    uint32_t m_nMarkedFirst = 0;
    uint32_t m_nMixedFirst = 0;
};

TEST_F(ArqBuildThreadsTest, BuildingWhileTheOldestNumbersAreAskedForMarksNoFirstSendingAndMixesNoPayload)
{
    for (const bool takesTrains : { false, true }) {
        CheckingCallback callback(takesTrains);
        BuildWhileTheOldestNumbersAreAskedFor(callback);
        EXPECT_EQ(m_nMarkedFirst, 0U);
        EXPECT_EQ(m_nMixedFirst, 0U);
        EXPECT_EQ(callback.m_nWrongTypes, 0U);
        EXPECT_EQ(callback.m_nMixtures, 0U);
    }
}

} // namespace
