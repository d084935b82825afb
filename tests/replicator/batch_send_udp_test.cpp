// Payloads without headers that are sent together: each stream builds, and remembers, its own records.
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "arq/arq_settings.h"
#include "replicator/batch_send.h"
#include "support/batch_fixture.h"

namespace {

using namespace test_support;

using Seqs = std::vector<uint16_t>;
using Texts = std::vector<std::string>;

class BatchSendUdp : public BatchTest<UdpFanOutTest> {
protected:
    void MakePayloads(size_t count, size_t bytes = 188)
    {
        std::vector<Bytes> payloads;
        for (size_t i = 0; i < count; ++i)
            payloads.push_back(Payload(bytes, static_cast<uint8_t>(i)));
        Make(payloads);
    }
    // The payload of the next datagram and its number.
    static void ExpectNext(Receiver& receiver, uint16_t seq, const Bytes& payload)
    {
        const Bytes datagram = receiver.Next();
        ASSERT_GE(datagram.size(), RTP_HEADER_BYTES);
        EXPECT_EQ(RtpSeq(datagram), seq);
        EXPECT_EQ(Bytes(datagram.begin() + RTP_HEADER_BYTES, datagram.end()), payload);
    }

    static constexpr size_t RTP_HEADER_BYTES = 12;
};

TEST_F(BatchSendUdp, EachReceiverGetsAllOfThemNumberedInTheirOrderByOneCall)
{
    MakePayloads(4);
    const WatchedSends sends;
    EXPECT_EQ(SendAll(), 1);
    for (Receiver* receiver : { &m_a, &m_b, &m_c }) {
        for (size_t i = 0; i < 4; ++i)
            ExpectNext(*receiver, static_cast<uint16_t>(i + 1), m_packets[i]->Data());
        EXPECT_FALSE(receiver->HasDatagram());
    }
    EXPECT_EQ(CallsOf(sends), (Texts { "A*1", "B*1", "C*1" }));
    EXPECT_EQ(m_fanOut.SeqNum(), 4);
    EXPECT_EQ(m_rx.m_nRxPackets, 4U);
    EXPECT_EQ(m_rx.m_nRxBytes, 4U * 188U);
    EXPECT_EQ(m_tx.m_nTxPackets, 12U);
    EXPECT_EQ(m_tx.m_nTxBytes, 12U * 200U);
}

TEST_F(BatchSendUdp, ASinglePayloadIsSentToEachByACallThatWaits)
{
    MakePayloads(1);
    const WatchedSends sends;
    EXPECT_EQ(SendAll(), 1);
    EXPECT_EQ(CallsOf(sends), (Texts { "A1", "B1", "C1" }));
}

TEST_F(BatchSendUdp, AWithheldPayloadTakesANumberAndMayBeAskedFor)
{
    WithholdEveryOtherPacket();
    MakePayloads(4);
    EXPECT_EQ(SendAll(), 1);
    ExpectEachGot({ 2, 4 });
    EXPECT_EQ(m_nDropPacket, 2);
    AskFor(Stream(2), 3);
    ExpectNext(m_c, 3, m_packets[2]->Data());
}

TEST_F(BatchSendUdp, AStreamThatWouldWaitAndThoseBehindItGetTheOldestPayloadPlainlyFirst)
{
    MakePayloads(3);
    const WatchedSends sends(BWaits());
    EXPECT_EQ(SendAll(), 1);
    EXPECT_EQ(CallsOf(sends), (Texts { "A*1", "B*1", "B1", "C1", "B*2B*3", "B2", "C2", "B*3", "B3", "C3" }));
    for (Receiver* receiver : { &m_a, &m_b, &m_c }) {
        for (size_t i = 0; i < 3; ++i)
            ExpectNext(*receiver, static_cast<uint16_t>(i + 1), m_packets[i]->Data());
    }
}

TEST_F(BatchSendUdp, OnceItNeedNotWaitAnyMoreTheRestIsBuiltAndSentTogetherAgain)
{
    const RecordingEngine& engine = ReplaceEngine(Stream(2));
    MakePayloads(3);
    const WatchedSends sends(BWaitsOnce());
    EXPECT_EQ(SendAll(), 1);
    EXPECT_EQ(sends.Calls().size(), 6U);
    EXPECT_EQ(engine.m_builtSeqs, (Seqs { 1, 2, 3 }));
    for (size_t i = 0; i < 3; ++i)
        ExpectNext(m_b, static_cast<uint16_t>(i + 1), m_packets[i]->Data());
}

TEST_F(BatchSendUdp, EveryEngineBuildsEachRecordOnceAndInOrderWhoeverWouldWait)
{
    RecordingEngine* engines[] { &ReplaceEngine(Stream(0)), &ReplaceEngine(Stream(1)),
        &ReplaceEngine(Stream(2)) };
    WithholdEveryOtherPacket();
    MakePayloads(4);
    const WatchedSends sends(BWaits());
    EXPECT_EQ(SendAll(), 1);
    for (const RecordingEngine* engine : engines)
        EXPECT_EQ(engine->m_builtSeqs, (Seqs { 1, 2, 3, 4 }));
}

// A record is built in its place of the ring, so no more go together than the ring has.
TEST_F(BatchSendUdp, MorePayloadsThanTheRingHasPlacesArriveWhole)
{
    constexpr int32_t PLACES = 4;
    bool ok = true;
    // NOLINTNEXTLINE: the engine puts itself into the stream, which owns it from then on.
    (void)new CArqSend(ok, &m_clock, &Stream(0), 2, 200, PLACES, DEFAULT_GROSS_MEDIA_BITRATE, true);
    ASSERT_TRUE(ok);
    const int32_t saved = g_nArqBufferCount;
    g_nArqBufferCount = PLACES;
    MakePayloads(10);
    const WatchedSends sends;
    EXPECT_EQ(SendAll(), 1);
    g_nArqBufferCount = saved;
    for (size_t i = 0; i < 10; ++i)
        ExpectNext(m_a, static_cast<uint16_t>(i + 1), m_packets[i]->Data());
    EXPECT_EQ(CallsOf(sends), (Texts { "A*1", "B*1", "C*1", "A*5", "B*5", "C*5", "A*9", "B*9", "C*9" }));
}

TEST_F(BatchSendUdp, TheGroupAloneGetsThemAndEveryEngineBuildsThem)
{
    RecordingEngine& engine = ReplaceEngine(Stream(1));
    Receiver group("127.0.0.6");
    const auto multicast = MakeStream("127.0.0.6", group.Port());
    m_fanOut.UseMulticast(multicast.get());
    MakePayloads(3);
    EXPECT_EQ(SendAll(), 1);
    for (size_t i = 0; i < 3; ++i)
        ExpectNext(group, static_cast<uint16_t>(i + 1), m_packets[i]->Data());
    ExpectEachGot({});
    EXPECT_EQ(engine.m_builtSeqs, (Seqs { 1, 2, 3 }));
    EXPECT_EQ(m_tx.m_nTxPackets, 3U);
}

TEST_F(BatchSendUdp, WhileNotRunningNoNumberIsTaken)
{
    m_bRunning = false;
    MakePayloads(3);
    EXPECT_EQ(SendAll(), 1);
    EXPECT_EQ(m_fanOut.SeqNum(), 0);
    EXPECT_EQ(m_rx.m_nRxPackets, 0U);
    ExpectEachGot({});
}

} // namespace
