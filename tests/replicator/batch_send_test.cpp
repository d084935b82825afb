// RTP packets that are sent together: stream by stream, until one would have to wait.
#include "replicator/batch_send.h"

#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "arq/media_header.h"
#include "support/acting_clock.h"
#include "support/allocation_hooks.h"
#include "support/batch_fixture.h"

namespace {

using namespace test_support;

using Seqs = std::vector<uint16_t>;
using Texts = std::vector<std::string>;

class BatchSend : public BatchTest<FanOutTest> {};

TEST_F(BatchSend, EachReceiverGetsAllOfThemInTheirOrderByOneCallThatDoesNotWait)
{
    MakeRtp(std::vector<size_t>(8, 188));
    const WatchedSends sends;
    EXPECT_EQ(SendAll(), 1);
    ExpectEachGot({ 0, 1, 2, 3, 4, 5, 6, 7 });
    EXPECT_EQ(CallsOf(sends), (Texts { "A*0", "B*0", "C*0" }));
    for (size_t i = 0; i < 3; ++i)
        EXPECT_EQ(sends.DatagramsOfEach(i), (std::vector<size_t> { 8 }));
}

TEST_F(BatchSend, EachPacketIsStampedAndCountedForItself)
{
    Make({ RtpPacket(10), RtpPacket(11), RtpPacket(15) });
    EXPECT_EQ(SendAll(), 1);
    const size_t bytes = m_packets[0]->Data().size();
    for (const PacketBuffer* packet : m_pointers)
        EXPECT_EQ(HeaderOf(*packet).timestamp.Get(), NOW);
    EXPECT_EQ(m_a.Next(), m_packets[0]->Data());
    EXPECT_EQ(m_rx.m_nRxPackets, 3U);
    EXPECT_EQ(m_rx.m_nRxBytes, 3 * bytes);
    EXPECT_EQ(m_rx.m_nRxLoss, 3);
    EXPECT_EQ(m_tx.m_nTxPackets, 9U);
    EXPECT_EQ(m_tx.m_nTxBytes, 9 * bytes);
}

TEST_F(BatchSend, SizesMayBeMixed)
{
    MakeRtp({ 188, 188, 100, 188, 0, 0, 300 });
    EXPECT_EQ(SendAll(), 1);
    ExpectEachGot({ 0, 1, 2, 3, 4, 5, 6 });
}

TEST_F(BatchSend, ImpairmentWithholdsPacketByPacketAndAllAreStored)
{
    RecordingEngine& engine = ReplaceEngine(Stream(1));
    WithholdEveryOtherPacket();
    MakeRtp(std::vector<size_t>(6, 188));
    EXPECT_EQ(SendAll(), 1);
    ExpectEachGot({ 1, 3, 5 });
    EXPECT_EQ(m_nDropPacket, 3);
    EXPECT_EQ(m_tx.m_nTxPackets, 9U);
    EXPECT_EQ(engine.m_stored, m_pointers);
}

TEST_F(BatchSend, WhatIsWithheldAsAWholeIsOnlyStored)
{
    RecordingEngine& engine = ReplaceEngine(Stream(0));
    ConfigureImpairment(m_impair, { .minDrop = 100, .minDist = 1 });
    MakeRtp({ 188, 188 });
    const WatchedSends sends;
    EXPECT_EQ(SendAll(), 1);
    EXPECT_EQ(sends.Calls().size(), 0U);
    EXPECT_EQ(engine.m_stored, m_pointers);
}

// The first resend changes the payload type in the packet that all streams share.
TEST_F(BatchSend, AllSendsComeBeforeTheFirstStore)
{
    const WatchedSends sends;
    std::vector<PacketBuffer*> stored;
    for (int32_t i = 0; i < 3; ++i) {
        ReplaceEngine(Stream(i)).m_onStore = [&](PacketBuffer* packet) {
            EXPECT_EQ(sends.Calls().size(), 3U);
            packet->Data()[1] = RETRANSMIT_PAYLOAD_TYPE;
            stored.push_back(packet);
        };
    }
    MakeRtp({ 188, 188 });
    EXPECT_EQ(SendAll(), 1);
    EXPECT_EQ(stored.size(), 6U);
    for (Receiver* receiver : { &m_a, &m_b, &m_c }) {
        EXPECT_EQ(PayloadType(receiver->Next()), MEDIA_PAYLOAD_TYPE);
        EXPECT_EQ(PayloadType(receiver->Next()), MEDIA_PAYLOAD_TYPE);
    }
}

TEST_F(BatchSend, AStreamThatWouldWaitAndThoseBehindItGetTheOldestPacketPlainlyBeforeTheRestIsTriedAgain)
{
    MakeRtp({ 188, 188, 188 });
    const WatchedSends sends(BWaits());
    EXPECT_EQ(SendAll(), 1);
    EXPECT_EQ(CallsOf(sends), (Texts { "A*0", "B*0", "B0", "C0", "B*1B*2", "B1", "C1", "B*2", "B2", "C2" }));
    ExpectEachGot({ 0, 1, 2 });
    EXPECT_EQ(m_tx.m_nTxPackets, 9U);
}

TEST_F(BatchSend, OnceItNeedNotWaitAnyMoreTheRestGoesTogetherAgainToItAndThoseBehindIt)
{
    MakeRtp({ 188, 188, 188 });
    const WatchedSends sends(BWaitsOnce());
    EXPECT_EQ(SendAll(), 1);
    EXPECT_EQ(CallsOf(sends), (Texts { "A*0", "B*0", "B0", "C0", "B*1B*2", "C*1" }));
    ExpectEachGot({ 0, 1, 2 });
    EXPECT_EQ(m_tx.m_nTxPackets, 9U);
}

TEST_F(BatchSend, WhatTheStreamThatWouldWaitHasTakenItGetsNoSecondTime)
{
    MakeRtp({ 188, 188, 100, 100 }); // the 100 bytes behind the 188 end that train
    Make({ RtpPacket(4, 0, 100) });
    const WatchedSends sends(BWaits(12 + 100));
    EXPECT_EQ(SendAll(), 1);
    EXPECT_EQ(CallsOf(sends),
        (Texts { "A*0A*3", "B*0B*3", "B*3", "C0", "B*3B*4", "C1", "B*3B*4", "C2", "B*3B*4", "B3", "C3", "B*4",
            "B4", "C4" }));
    ExpectEachGot({ 0, 1, 2, 3, 4 });
}

TEST_F(BatchSend, TheTurnsAreRightWhereSomeAreWithheld)
{
    WithholdEveryOtherPacket(); // 0, 2, 4, 6
    MakeRtp({ 0, 100, 0, 100, 0, 188, 0, 188 });
    const WatchedSends sends(BWaits(12 + 188));
    EXPECT_EQ(SendAll(), 1);
    EXPECT_EQ(CallsOf(sends),
        (Texts { "A*1A*5", "B*1B*5", "B*5", "B*5B*7", "C1", "B*5B*7", "B*5B*7", "C3", "B*5B*7", "B*5B*7",
            "B5", "C5", "B*7", "B*7", "B7", "C7" }));
    ExpectEachGot({ 1, 3, 5, 7 });
    EXPECT_EQ(m_tx.m_nTxPackets, 12U);
}

// A packet that is through with all streams may be asked for while the next one still waits.
TEST_F(BatchSend, PacketByPacketEachIsStoredBeforeTheNextIsSent)
{
    const WatchedSends sends(BWaits());
    std::vector<size_t> callsAtStore;
    for (int32_t i = 0; i < 3; ++i)
        ReplaceEngine(Stream(i)).m_onStore
            = [&](PacketBuffer*) { callsAtStore.push_back(sends.Calls().size()); };
    MakeRtp({ 188, 188 });
    EXPECT_EQ(SendAll(), 1);
    EXPECT_EQ(callsAtStore, (std::vector<size_t> { 4, 4, 4, 7, 7, 7 }));
}

TEST_F(BatchSend, AStreamThatCannotSendIsReportedForEachPacketAndStopsNobody)
{
    (void)AddStream("255.255.255.255", 9); // the socket may not send to the broadcast address
    Receiver behind("127.0.0.5");
    (void)AddStreamTo("127.0.0.5", behind);
    MakeRtp({ 188, 188 });
    CapturedOutput output;
    EXPECT_EQ(SendAll(), 1);
    EXPECT_EQ(output.Err(), "SendData failed: Permission denied\nSendData failed: Permission denied\n");
    ExpectEachGot({ 0, 1 });
    EXPECT_EQ(SeqsAt(behind), (Seqs { 0, 1 }));
    EXPECT_EQ(m_tx.m_nTxPackets, 10U);
}

TEST_F(BatchSend, AStreamThatIsNotAliveSaysSoForEachPacketAndStopsNobody)
{
    Stream(1).m_bIsAlive = false;
    MakeRtp({ 188, 188 });
    CapturedOutput output;
    EXPECT_EQ(SendAll(), 1);
    EXPECT_EQ(output.Err(), "SendData:: m_bIsAlive is false\nSendData:: m_bIsAlive is false\n");
    EXPECT_EQ(SeqsAt(m_a), (Seqs { 0, 1 }));
    EXPECT_EQ(SeqsAt(m_b), Seqs {});
    EXPECT_EQ(SeqsAt(m_c), (Seqs { 0, 1 }));
}

// Its sockets take turns datagram by datagram.
TEST_F(BatchSend, AStreamWithSeveralSocketsGetsThemOneByOneAndHoldsUpNobody)
{
    {
        const CapturedOutput output;
        Stream(1).BindInterfaces(2, 50);
    }
    MakeRtp({ 188, 188 });
    // Wherever such devices lead, nothing is to leave there.
    const WatchedSends sends(
        [this](const SentMessage& message) { return message.port == m_b.Port() ? EPERM : 0; });
    const CapturedOutput output;
    EXPECT_EQ(SendAll(), 1);
    EXPECT_EQ(CallsOf(sends), (Texts { "A*0", "B*0", "B0", "B*1", "B1", "C*0" }));
    EXPECT_EQ(SeqsAt(m_c), (Seqs { 0, 1 }));
}

TEST_F(BatchSend, ASinglePacketIsSentToEachByACallThatWaits)
{
    MakeRtp({ 188 });
    const WatchedSends sends;
    EXPECT_EQ(SendAll(), 1);
    EXPECT_EQ(CallsOf(sends), (Texts { "A0", "B0", "C0" }));
}

TEST_F(BatchSend, WhileNotRunningNothingIsCountedSentOrStored)
{
    RecordingEngine& engine = ReplaceEngine(Stream(0));
    m_bRunning = false;
    MakeRtp({ 188, 188 });
    EXPECT_EQ(SendAll(), 1);
    EXPECT_EQ(m_rx.m_nRxPackets, 0U);
    EXPECT_EQ(engine.m_stored.size(), 0U);
    ExpectEachGot({});
}

TEST_F(BatchSend, WhenTheRunEndsAmongThemThoseBeforeAreSentAndStoredAndTheOthersNotCounted)
{
    RecordingEngine& engine = ReplaceEngine(Stream(2));
    ActingClock clock(NOW);
    FanOut fanOut({ .table = m_table,
        .clock = clock,
        .rx = m_rx,
        .impair = m_impair,
        .nDropPacket = m_nDropPacket,
        .bRunning = m_bRunning,
        .udpInputMode = false });
    MakeRtp({ 188, 188, 188, 188 });
    clock.AtNextReading([&] { clock.AtNextReading([&] { m_bRunning = false; }); });
    EXPECT_EQ(fanOut.SendPackets(m_pointers.data(), 4), 1);
    ExpectEachGot({ 0, 1 });
    EXPECT_EQ(engine.m_stored, (std::vector<PacketBuffer*> { m_pointers[0], m_pointers[1] }));
    EXPECT_EQ(m_rx.m_nRxPackets, 2U);
    EXPECT_EQ(m_tx.m_nTxPackets, 6U);
}

TEST_F(BatchSend, TheGroupAloneGetsThemAndTheTableStoresThem)
{
    RecordingEngine& engine = ReplaceEngine(Stream(1));
    Receiver group("127.0.0.6");
    const auto multicast = MakeStream("127.0.0.6", group.Port());
    m_fanOut.UseMulticast(multicast.get());
    WithholdEveryOtherPacket();
    MakeRtp({ 188, 188, 188, 188 });
    EXPECT_EQ(SendAll(), 1);
    EXPECT_EQ(SeqsAt(group), (Seqs { 1, 3 }));
    ExpectEachGot({});
    EXPECT_EQ(engine.m_stored, m_pointers);
    EXPECT_EQ(m_tx.m_nTxPackets, 2U);
}

TEST_F(BatchSend, AGroupThatWouldWaitIsWaitedForAndGetsEachOnce)
{
    const auto multicast = MakeStream("127.0.0.3", m_b.Port());
    m_fanOut.UseMulticast(multicast.get());
    MakeRtp({ 188, 188, 188 });
    const WatchedSends sends(BWaits());
    EXPECT_EQ(SendAll(), 1);
    EXPECT_EQ(CallsOf(sends), (Texts { "B*0", "B0", "B*1B*2", "B1", "B*2", "B2" }));
    EXPECT_EQ(SeqsAt(m_b), (Seqs { 0, 1, 2 }));
}

TEST_F(BatchSend, NothingIsAllocatedForIt)
{
    for (int i = 5; i < 52; ++i)
        (void)AddStream(("127.0.0." + std::to_string(i)).c_str(), 9);
    MakeRtp(std::vector<size_t>(MOST_TOGETHER, 188));
    const AllocationCount count;
    (void)SendAll();
    EXPECT_EQ(count.Count(), 0U);
    EXPECT_EQ(m_tx.m_nTxPackets, 50U * MOST_TOGETHER);
}

} // namespace
