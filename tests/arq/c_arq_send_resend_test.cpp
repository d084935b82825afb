// What is sent again, and what is not in the ring any more.
#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>

#include "base/rtp.h"
#include "support/engine_fixture.h"

using test_support::Bytes;
using test_support::BytesOf;
using test_support::EngineTest;
using test_support::RtpPacket;
using test_support::Seqs;
using test_support::TestPacket;

namespace {

class ArqResendTest : public EngineTest {};

TEST_F(ArqResendTest, ARetransmissionHasPayloadType122AndKeepsItsMarker)
{
    struct {
        uint8_t before;
        uint8_t after;
    } const cases[] = { { 0x21, 0x7A }, { 0xA1, 0xFA }, { 0x00, 0x7A }, { 0xFF, 0xFA }, { 0x7A, 0x7A } };
    for (const auto& c : cases) {
        MakeEngine();
        TestPacket packet(RtpPacket(5, NOW, 100, c.before));
        Bytes expected = packet.Contents();
        expected[1] = c.after;
        m_pEngine->StoreSent(packet.Get());
        EXPECT_EQ(Ask({ 5 }), 1U);
        ASSERT_EQ(m_callback.Count(), 1U);
        EXPECT_EQ(m_callback.Sent()[0], expected); // nothing else is changed
        EXPECT_EQ(packet.Data()[1], c.after); // the stored packet keeps it
        EXPECT_EQ(m_callback.Pointers()[0], packet.Get());
    }
}

// Its header is what the slice holds behind it. The slice is the pool's last: nothing may be read past it.
TEST_F(ArqResendTest, APacketShorterThanAHeaderIsSentAgainWithItsLength)
{
    for (int32_t length = 0; length < RTP_HEADER_BYTES; ++length) {
        MakeEngine();
        const auto pool = PacketBufferPool::createDefault(1);
        PacketBuffer* packet = test_support::TakeFilled(*pool, RtpPacket(5, NOW));
        packet->SetLength(length);
        Bytes expected = BytesOf(*packet);
        if (length > 1)
            expected[1] = 0x7A;
        m_pEngine->StoreSent(packet);
        EXPECT_EQ(Ask({ 5 }), 1U);
        ASSERT_EQ(m_callback.Count(), 1U) << length;
        EXPECT_EQ(m_callback.Sent()[0], expected);
    }
}

TEST_F(ArqResendTest, PacketsGoOutInTheReceiversOrder)
{
    StoreAll(1, 5);
    EXPECT_EQ(Ask({ 4, 1, 5, 2 }), 1U);
    EXPECT_EQ(SentSeqs(), (Seqs { 4, 1, 5, 2 }));
    EXPECT_EQ(Stats().retransmitted, 4U);
}

TEST_F(ArqResendTest, RequestsAcrossTheWrapOfTheSequenceAreAnswered)
{
    for (const uint16_t seq : std::initializer_list<uint16_t> { 65534, 65535, 0, 1 })
        Store(seq);
    EXPECT_EQ(Ask({ 65534, 65535, 0, 1 }), 1U);
    EXPECT_EQ(SentSeqs(), (Seqs { 65534, 65535, 0, 1 }));
}

TEST_F(ArqResendTest, EmptySlotsAreCountedAndTheRequestGoesOn)
{
    Store(5);
    EXPECT_EQ(Ask({ 3, 4, 5, 6 }), 1U);
    EXPECT_EQ(SentSeqs(), Seqs { 5 });
    EXPECT_EQ(Stats().notInBuffer, 3U);
    EXPECT_EQ(Stats().retransmitted, 1U);
}

TEST_F(ArqResendTest, ANumberOverwrittenInTheRingSendsAndCountsNothing)
{
    Store(5);
    Store(5 + RING_SIZE);
    EXPECT_EQ(Ask({ 5 }), 1U);
    EXPECT_EQ(m_callback.Count(), 0U);
    const ArqSendStats stats = Stats();
    EXPECT_EQ(stats.retransmitted, 0U);
    EXPECT_EQ(stats.notInBuffer, 0U);
    EXPECT_EQ(stats.expired, 0U);
    EXPECT_EQ(stats.overBudget, 0U);
    EXPECT_EQ(Ask({ 5 + RING_SIZE }), 1U); // the newer packet is untouched
    EXPECT_EQ(SentSeqs(), Seqs { 5 + RING_SIZE });
}

TEST_F(ArqResendTest, AnOverwrittenNumberDoesNotExpireTheNewerPacket)
{
    Store(5 + RING_SIZE);
    m_clock.Advance(MAX_AGE_TICKS + 1);
    EXPECT_EQ(Ask({ 5 }), 1U);
    EXPECT_EQ(Stats().expired, 0U);
    EXPECT_EQ(Ask({ 5 + RING_SIZE }), 1U);
    EXPECT_EQ(Stats().expired, 1U);
}

TEST_F(ArqResendTest, TheSequenceNumberIsThatOfTheHeaderNow)
{
    TestPacket& packet = Store(5);
    packet.Data()[3] = 69; // the buffer behind the slot was reused for number 69
    EXPECT_EQ(Ask({ 5 }), 1U);
    EXPECT_EQ(m_callback.Count(), 0U);
}

} // namespace
