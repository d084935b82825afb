#include <initializer_list>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "arq/media_clock.h"
#include "arq/media_header.h"
#include "base/byte_order.h"
#include "replicator/replicator_fixture.h"
#include "support/allocation_hooks.h"

namespace {

using namespace test_support;

// The packet path of a running replicator.
class FanOutTest : public ReplicatorTest {
protected:
    // Builds the replicator with a stream to each receiver.
    void Start(const char* destinations, bool udpInputMode = false)
    {
        m_settings.destAddress = destinations;
        m_settings.udpInputMode = udpInputMode;
        const CapturedOutput output;
        (void)Build();
    }

    int SendRaw(Bytes& payload)
    {
        return m_replicator->SendRaw(payload.data(), static_cast<int32_t>(payload.size()));
    }

    // Every packet that meets the gate next is withheld or passed in turn, the first one withheld.
    void WithholdEveryOtherPacket()
    {
        ConfigureImpairment(m_replicator->m_impair, { .minDrop = 1, .minDist = 1 });
    }

    uint16_t Port() const { return m_pingLease.Port(); }
};

TEST_F(FanOutTest, EveryStreamGetsThePacketWithAFreshTimestampAndNothingElseChanged)
{
    Receiver first("127.0.0.2", Port());
    Receiver second("127.0.0.3", Port());
    Start("127.0.0.2,127.0.0.3");
    const Bytes input = RtpPacket(10, 0x12345678);
    OwnedPacket packet(input);
    const uint32_t before = MediaClock();
    EXPECT_EQ(Send(packet), 1);
    const uint32_t after = MediaClock();
    const Bytes got = first.Next();
    EXPECT_EQ(second.Next(), got);
    EXPECT_EQ(WithoutTimestamp(got), WithoutTimestamp(input));
    ASSERT_GE(got.size(), 12U);
    const uint32_t stamp = reinterpret_cast<const MediaHeader*>(got.data())->timestamp.Get();
    EXPECT_GE(TicksSince(stamp, before), 0);
    EXPECT_GE(TicksSince(after, stamp), 0);
    EXPECT_EQ(m_replicator->RxStats().m_nRxPackets, 1U);
    EXPECT_EQ(m_replicator->TxStats().m_nTxPackets, 2U);
}

TEST_F(FanOutTest, LossIsCountedFromTheInputSequence)
{
    Start("");
    for (const uint16_t seq : std::initializer_list<uint16_t> { 10, 11, 14, 12 }) {
        OwnedPacket packet(RtpPacket(seq));
        EXPECT_EQ(Send(packet), 1);
    }
    EXPECT_EQ(m_replicator->RxStats().m_nRxLoss, 2);
    m_replicator->ResetRxStats();
    OwnedPacket packet(RtpPacket(500));
    EXPECT_EQ(Send(packet), 1);
    EXPECT_EQ(m_replicator->RxStats().m_nRxLoss, 0);
    EXPECT_EQ(m_replicator->RxStats().m_nRxPackets, 1U);
}

TEST_F(FanOutTest, TheInputCounterPassesTwoToThe32)
{
    Start("");
    const_cast<ReceiveStats&>(m_replicator->RxStats()).m_nRxPackets = 0xFFFFFFFFU;
    OwnedPacket packet(RtpPacket(1));
    EXPECT_EQ(Send(packet), 1);
    EXPECT_EQ(m_replicator->RxStats().m_nRxPackets, 0x100000000U);
}

// The header's bytes lie in the packet's slice, however short the datagram in it is.
TEST_F(FanOutTest, APacketShorterThanAnRtpHeaderIsStampedCountedSentWithItsLengthAndStored)
{
    Receiver receiver("127.0.0.2", Port());
    Start("127.0.0.2");
    std::vector<PacketBuffer*> stored;
    ReplaceEngine(Stream(0)).m_onStore = [&](PacketBuffer* packet) { stored.push_back(packet); };
    const auto pool = PacketBufferPool::createDefault(3);
    std::vector<PacketBuffer*> packets;
    for (const int32_t length : { 11, 4, 0 }) {
        PacketBuffer* packet = pool->get();
        const auto seq = static_cast<uint8_t>(10 + 2 * packets.size()); // 10, 12, 14: one is lost each time
        const uint8_t start[] = { 0x80, 0x21, 0, seq };
        std::memcpy(packet->Data(), start, sizeof(start));
        packet->SetLength(length);
        EXPECT_EQ(m_replicator->SendPacket(packet), 1);
        const Bytes sent = receiver.Next();
        EXPECT_EQ(sent, Bytes(packet->Data(), packet->Data() + length));
        packets.push_back(packet);
    }
    EXPECT_NE(HeaderOf(*packets[0]).timestamp.Get(), 0U);
    EXPECT_EQ(stored, packets);
    EXPECT_EQ(m_replicator->RxStats().m_nRxPackets, 3U);
    EXPECT_EQ(m_replicator->RxStats().m_nRxLoss, 2);
}

// An engine changes the payload type in the shared packet when it sends it again, and it may do so as soon as
// it has the packet.
TEST_F(FanOutTest, AllSendingsComeBeforeAllStoresSoThatNoFirstSendingIsMarkedAsRetransmission)
{
    Receiver first("127.0.0.2", Port());
    Receiver second("127.0.0.3", Port());
    Start("127.0.0.2,127.0.0.3");
    std::vector<int> order;
    const auto record = [&](int index) {
        return [&, index](PacketBuffer* packet) {
            EXPECT_TRUE(first.HasDatagram());
            EXPECT_TRUE(second.HasDatagram());
            packet->Data()[1] = RETRANSMIT_PAYLOAD_TYPE;
            order.push_back(index);
        };
    };
    ReplaceEngine(Stream(0)).m_onStore = record(0);
    ReplaceEngine(Stream(1)).m_onStore = record(1);
    OwnedPacket packet(RtpPacket(10));
    EXPECT_EQ(Send(packet), 1);
    EXPECT_EQ(order, (std::vector<int> { 0, 1 }));
    EXPECT_EQ(PayloadType(first.Next()), MEDIA_PAYLOAD_TYPE);
    EXPECT_EQ(PayloadType(second.Next()), MEDIA_PAYLOAD_TYPE);
}

TEST_F(FanOutTest, AWithheldPacketIsStoredInEveryEngineAndCountsAsReceived)
{
    Receiver first("127.0.0.2", Port());
    Receiver second("127.0.0.3", Port());
    Start("127.0.0.2,127.0.0.3");
    WithholdEveryOtherPacket();
    OwnedPacket withheld(RtpPacket(10));
    OwnedPacket passed(RtpPacket(11));
    EXPECT_EQ(Send(withheld), 1);
    EXPECT_EQ(Send(passed), 1);
    EXPECT_EQ(m_replicator->m_nDropPacket, 1);
    EXPECT_EQ(m_replicator->RxStats().m_nRxPackets, 2U);
    EXPECT_EQ(m_replicator->RxStats().m_nRxLoss, 0);
    EXPECT_EQ(m_replicator->TxStats().m_nTxPackets, 2U);
    for (Receiver* receiver : { &first, &second }) {
        EXPECT_EQ(RtpSeq(receiver->Next()), 11);
        receiver->SendTo("127.0.0.1", m_requestLease.Port(), Request({ 10 }));
        const Bytes recovered = receiver->Next();
        EXPECT_EQ(RtpSeq(recovered), 10);
        EXPECT_EQ(PayloadType(recovered), RETRANSMIT_PAYLOAD_TYPE);
    }
    m_replicator->Stop(); // the listen thread may still hold the packet
}

TEST_F(FanOutTest, AStreamThatCannotSendDoesNotStopTheOthers)
{
    Receiver receiver("127.0.0.3", Port());
    Start("255.255.255.255,127.0.0.3"); // the socket may not send to the broadcast address
    OwnedPacket packet(RtpPacket(10));
    CapturedOutput output;
    EXPECT_EQ(Send(packet), 1);
    EXPECT_EQ(output.Err(), "SendData failed: Permission denied\n");
    EXPECT_EQ(RtpSeq(receiver.Next()), 10);
    EXPECT_EQ(m_replicator->TxStats().m_nTxPackets, 2U);
}

TEST_F(FanOutTest, WhileNotRunningEverythingIsDiscardedUncounted)
{
    Receiver receiver("127.0.0.2", Port());
    Start("127.0.0.2", true);
    m_replicator->Stop();
    RecordingEngine& engine = ReplaceEngine(Stream(0));
    OwnedPacket packet(RtpPacket(10));
    Bytes payload { 1 };
    EXPECT_EQ(Send(packet), 1);
    EXPECT_EQ(SendRaw(payload), 1);
    EXPECT_FALSE(receiver.HasDatagram());
    EXPECT_TRUE(engine.m_builtSeqs.empty());
    EXPECT_EQ(m_replicator->RxStats().m_nRxPackets, 0U);
    EXPECT_EQ(m_replicator->RxStats().m_nRxBytes, 0U);
    CapturedOutput output;
    m_replicator->DebugDump();
    EXPECT_NE(output.Err().find("m_usSeqNum 0\n"), std::string::npos);
}

TEST_F(FanOutTest, InUdpModeEveryDatagramGetsAHeaderWithTheNextNumberFrom1)
{
    Receiver receiver("127.0.0.2", Port());
    Start("127.0.0.2", true);
    const Bytes payload = Payload(1316);
    OwnedPacket first(payload);
    OwnedPacket second(Bytes { 5 }); // shorter than an RTP header would be
    const uint32_t before = MediaClock();
    EXPECT_EQ(Send(first), 1);
    EXPECT_EQ(Send(second), 1);
    const Bytes got = receiver.Next();
    ASSERT_EQ(got.size(), 12U + 1316U);
    EXPECT_EQ(got[0], 0x80);
    EXPECT_EQ(got[1], 0x21);
    EXPECT_EQ(RtpSeq(got), 1);
    const uint32_t stamp = reinterpret_cast<const MediaHeader*>(got.data())->timestamp.Get();
    EXPECT_GE(TicksSince(stamp, before), 0);
    EXPECT_GE(TicksSince(MediaClock(), stamp), 0);
    EXPECT_EQ(Bytes(got.begin() + 12, got.end()), payload);
    const Bytes next = receiver.Next();
    EXPECT_EQ(RtpSeq(next), 2);
    EXPECT_EQ(next.back(), 5);
    EXPECT_EQ(m_replicator->RxStats().m_nRxPackets, 2U);
    EXPECT_EQ(m_replicator->RxStats().m_nRxLoss, 0);
}

TEST_F(FanOutTest, InUdpModeZeroFollowsNumber65535)
{
    Start("", true);
    Bytes payload { 7 };
    for (int i = 0; i < 65534; ++i)
        ASSERT_EQ(SendRaw(payload), 1);
    Receiver receiver("127.0.0.2", Port());
    {
        const CapturedOutput output;
        ASSERT_EQ(m_replicator->AddStream("127.0.0.2", 0), 1);
    }
    for (const uint16_t seq : std::initializer_list<uint16_t> { 65535, 0, 1 }) {
        EXPECT_EQ(SendRaw(payload), 1);
        EXPECT_EQ(RtpSeq(receiver.Next()), seq);
    }
}

TEST_F(FanOutTest, InUdpModeAStreamIsSentBeforeTheNextEngineBuildsItsCopy)
{
    Receiver first("127.0.0.2", Port());
    Receiver second("127.0.0.3", Port());
    Start("127.0.0.2,127.0.0.3", true);
    RecordingEngine& engine0 = ReplaceEngine(Stream(0));
    RecordingEngine& engine1 = ReplaceEngine(Stream(1));
    engine0.m_onBuild = [&] { EXPECT_FALSE(first.HasDatagram()); };
    engine1.m_onBuild = [&] {
        EXPECT_TRUE(first.HasDatagram());
        EXPECT_FALSE(second.HasDatagram());
    };
    Bytes payload { 7 };
    EXPECT_EQ(SendRaw(payload), 1);
    EXPECT_TRUE(second.HasDatagram());
    EXPECT_EQ(engine0.m_builtSeqs, (std::vector<uint16_t> { 1 }));
    EXPECT_EQ(engine1.m_builtSeqs, (std::vector<uint16_t> { 1 }));
}

TEST_F(FanOutTest, InUdpModeAWithheldPacketTakesANumberAndCanBeRequested)
{
    Receiver receiver("127.0.0.2", Port());
    Start("127.0.0.2", true);
    WithholdEveryOtherPacket();
    Bytes payload { 7 };
    EXPECT_EQ(SendRaw(payload), 1);
    EXPECT_EQ(SendRaw(payload), 1);
    EXPECT_EQ(RtpSeq(receiver.Next()), 2);
    EXPECT_EQ(m_replicator->m_nDropPacket, 1);
    receiver.SendTo("127.0.0.1", m_requestLease.Port(), Request({ 1 }));
    const Bytes recovered = receiver.Next();
    EXPECT_EQ(RtpSeq(recovered), 1);
    EXPECT_EQ(PayloadType(recovered), RETRANSMIT_PAYLOAD_TYPE);
    m_replicator->Stop(); // the listen thread may still hold the packet
}

// A multicast destination whose datagrams stay here: its stream is kept from sending, and says so each time.
class MulticastFanOutTest : public FanOutTest {
protected:
    void StartMulticast(bool udpInputMode)
    {
        m_settings.unicastUdpPort = m_unicastLease.Port();
        Start("239.1.1.1", udpInputMode);
        const_cast<MyArqSendCB*>(m_replicator->MulticastStream())->m_bIsAlive = 0;
        const CapturedOutput output;
        ASSERT_EQ(m_replicator->AddStream("127.0.0.2", 0), 1);
        ASSERT_EQ(m_replicator->AddStream("127.0.0.3", 0), 1);
    }
    RecordingEngine& ReplaceMulticastEngine()
    {
        return ReplaceEngine(*const_cast<MyArqSendCB*>(m_replicator->MulticastStream()));
    }

    static constexpr char HELD_BACK[] = "SendData:: m_bIsAlive is false\n";
    PortLease m_unicastLease;
};

TEST_F(MulticastFanOutTest, InRtpModeOnlyTheGroupIsSentToAndOnlyTheTableEnginesStore)
{
    Receiver receiver("127.0.0.2", m_unicastLease.Port());
    StartMulticast(false);
    std::vector<int> stored;
    ReplaceEngine(Stream(0)).m_onStore = [&](PacketBuffer*) { stored.push_back(0); };
    ReplaceEngine(Stream(1)).m_onStore = [&](PacketBuffer*) { stored.push_back(1); };
    ReplaceMulticastEngine().m_onStore = [&](PacketBuffer*) { stored.push_back(2); };
    OwnedPacket packet(RtpPacket(10));
    CapturedOutput output;
    EXPECT_EQ(Send(packet), 1);
    EXPECT_EQ(output.Err(), HELD_BACK);
    EXPECT_EQ(stored, (std::vector<int> { 0, 1 }));
    EXPECT_FALSE(receiver.HasDatagram());
}

TEST_F(MulticastFanOutTest, InUdpModeAllEnginesBuildAndOnlyTheGroupIsSentTo)
{
    Receiver receiver("127.0.0.2", m_unicastLease.Port());
    StartMulticast(true);
    RecordingEngine& engine0 = ReplaceEngine(Stream(0));
    RecordingEngine& engine1 = ReplaceEngine(Stream(1));
    RecordingEngine& group = ReplaceMulticastEngine();
    std::vector<int> order;
    engine0.m_onBuild = [&] { order.push_back(0); };
    engine1.m_onBuild = [&] { order.push_back(1); };
    group.m_onBuild = [&] { order.push_back(2); };
    Bytes payload { 7 };
    CapturedOutput output;
    EXPECT_EQ(SendRaw(payload), 1);
    EXPECT_EQ(output.Err(), HELD_BACK);
    EXPECT_EQ(order, (std::vector<int> { 0, 1, 2 }));
    EXPECT_EQ(engine1.m_builtSeqs, (std::vector<uint16_t> { 1 }));
    EXPECT_EQ(group.m_builtSeqs, (std::vector<uint16_t> { 1 }));
    EXPECT_FALSE(receiver.HasDatagram());
}

TEST_F(MulticastFanOutTest, AWithheldPacketIsNotSentToTheGroupButBuiltByAllEngines)
{
    StartMulticast(true);
    RecordingEngine& engine0 = ReplaceEngine(Stream(0));
    RecordingEngine& group = ReplaceMulticastEngine();
    WithholdEveryOtherPacket();
    Bytes payload { 7 };
    CapturedOutput output;
    EXPECT_EQ(SendRaw(payload), 1);
    EXPECT_EQ(output.Err(), "");
    EXPECT_EQ(engine0.m_builtSeqs, (std::vector<uint16_t> { 1 }));
    EXPECT_EQ(group.m_builtSeqs, (std::vector<uint16_t> { 1 }));
}

class FiftyStreamsTest : public FanOutTest {
protected:
    void StartFifty(bool udpInputMode)
    {
        std::string text;
        for (int i = 2; i < 52; ++i)
            text += "127.0.0." + std::to_string(i) + ",";
        Start(text.c_str(), udpInputMode);
        ASSERT_EQ(CountOfStreams(*m_replicator), 50);
    }

    // Allocations of this thread for a few packets and a request that is answered.
    uint64_t AllocationsForPacketsAndARequest(uint16_t firstSeq)
    {
        OwnedPacket first(RtpPacket(firstSeq));
        OwnedPacket second(RtpPacket(static_cast<uint16_t>(firstSeq + 1)));
        OwnedPacket plain(Request({ firstSeq, static_cast<uint16_t>(firstSeq + 1) }));
        const AllocationCount count;
        (void)Send(first);
        (void)Send(second);
        (void)m_replicator->ProcessRequest(plain.Get(), Net("127.0.0.2"), htons(9), 0);
        return count.Count();
    }
    uint32_t Resent()
    {
        ArqSendStats stats {};
        (void)m_replicator->GetStreamStats(&stats, 0);
        return stats.retransmitted;
    }
};

TEST_F(FiftyStreamsTest, NothingIsAllocatedForAnRtpPacketOrARequest)
{
    StartFifty(false);
    EXPECT_EQ(AllocationsForPacketsAndARequest(10), 0U);
    EXPECT_EQ(m_replicator->TxStats().m_nTxPackets, 102U);
    EXPECT_EQ(Resent(), 2U);
}

TEST_F(FiftyStreamsTest, NothingIsAllocatedForADatagramInUdpModeOrARequest)
{
    StartFifty(true);
    EXPECT_EQ(AllocationsForPacketsAndARequest(1), 0U);
    EXPECT_EQ(m_replicator->TxStats().m_nTxPackets, 102U);
    EXPECT_EQ(Resent(), 2U);
}

} // namespace
