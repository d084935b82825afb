// RTP input: stamped, counted, sent to all, stored by all.
#include "replicator/fan_out.h"

#include <cstring>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "arq/media_header.h"
#include "replicator/request_router.h"
#include "support/allocation_hooks.h"
#include "support/fan_out_fixture.h"

namespace {

using namespace test_support;

using Packets = std::vector<PacketBuffer*>;

uint32_t TimestampOf(const Bytes& rtpPacket)
{
    return reinterpret_cast<const MediaHeader*>(rtpPacket.data())->timestamp.Get();
}

TEST_F(FanOutTest, EveryStreamGetsThePacketWithAFreshTimestampAndNothingElseChanged)
{
    Receiver first("127.0.0.2");
    Receiver second("127.0.0.3");
    (void)AddStreamTo("127.0.0.2", first);
    (void)AddStreamTo("127.0.0.3", second);
    const Bytes input = RtpPacket(10, 0x12345678);
    OwnedPacket packet(input);
    EXPECT_EQ(Send(packet), 1);
    const Bytes got = first.Next();
    EXPECT_EQ(second.Next(), got);
    EXPECT_EQ(WithoutTimestamp(got), WithoutTimestamp(input));
    EXPECT_EQ(TimestampOf(got), NOW);
    EXPECT_EQ(m_rx.m_nRxPackets, 1U);
    EXPECT_EQ(m_rx.m_nRxBytes, input.size());
    EXPECT_EQ(m_tx.m_nTxPackets, 2U);
    EXPECT_EQ(m_tx.m_nTxBytes, 2 * input.size());
}

TEST_F(FanOutTest, LossIsCountedFromTheInputSequence)
{
    for (const uint16_t seq : std::initializer_list<uint16_t> { 10, 11, 14, 12 }) {
        OwnedPacket packet(RtpPacket(seq));
        EXPECT_EQ(Send(packet), 1);
    }
    EXPECT_EQ(m_rx.m_nRxLoss, 2);
    m_rx.Reset();
    OwnedPacket packet(RtpPacket(500));
    EXPECT_EQ(Send(packet), 1);
    EXPECT_EQ(m_rx.m_nRxLoss, 0);
    EXPECT_EQ(m_rx.m_nRxPackets, 1U);
}

TEST_F(FanOutTest, TheInputCounterPassesTwoToThe32)
{
    m_rx.m_nRxPackets = 0xFFFFFFFFU;
    OwnedPacket packet(RtpPacket(1));
    EXPECT_EQ(Send(packet), 1);
    EXPECT_EQ(m_rx.m_nRxPackets, 0x100000000U);
}

// The header's bytes lie in the packet's slice, however short the datagram in it is.
TEST_F(FanOutTest, APacketShorterThanAnRtpHeaderIsStampedCountedSentWithItsLengthAndStored)
{
    Receiver receiver("127.0.0.2");
    const RecordingEngine& engine = ReplaceEngine(AddStreamTo("127.0.0.2", receiver));
    const auto pool = PacketBufferPool::createDefault(3);
    Packets packets;
    for (const int32_t length : { 11, 4, 0 }) {
        PacketBuffer* packet = pool->get();
        const auto seq = static_cast<uint8_t>(10 + 2 * packets.size()); // 10, 12, 14: one is lost each time
        const uint8_t start[] = { 0x80, 0x21, 0, seq };
        std::memcpy(packet->Data(), start, sizeof(start));
        packet->SetLength(length);
        EXPECT_EQ(m_fanOut.SendPacket(packet), 1);
        EXPECT_EQ(receiver.Next(), Bytes(packet->Data(), packet->Data() + length));
        EXPECT_EQ(HeaderOf(*packet).timestamp.Get(), NOW);
        packets.push_back(packet);
    }
    EXPECT_EQ(engine.m_stored, packets);
    EXPECT_EQ(m_rx.m_nRxPackets, 3U);
    EXPECT_EQ(m_rx.m_nRxBytes, 15U);
    EXPECT_EQ(m_rx.m_nRxLoss, 2);
}

// An engine changes the payload type in the shared packet when it sends it again, and it may do so as soon as
// it has the packet.
TEST_F(FanOutTest, AllSendingsComeBeforeAllStoresSoThatNoFirstSendingIsMarkedAsRetransmission)
{
    Receiver first("127.0.0.2");
    Receiver second("127.0.0.3");
    std::vector<int> order;
    const auto record = [&](int index) {
        return [&, index](PacketBuffer* packet) {
            EXPECT_TRUE(first.HasDatagram());
            EXPECT_TRUE(second.HasDatagram());
            packet->Data()[1] = RETRANSMIT_PAYLOAD_TYPE;
            order.push_back(index);
        };
    };
    ReplaceEngine(AddStreamTo("127.0.0.2", first)).m_onStore = record(0);
    ReplaceEngine(AddStreamTo("127.0.0.3", second)).m_onStore = record(1);
    OwnedPacket packet(RtpPacket(10));
    EXPECT_EQ(Send(packet), 1);
    EXPECT_EQ(order, (std::vector<int> { 0, 1 }));
    EXPECT_EQ(PayloadType(first.Next()), MEDIA_PAYLOAD_TYPE);
    EXPECT_EQ(PayloadType(second.Next()), MEDIA_PAYLOAD_TYPE);
}

TEST_F(FanOutTest, AWithheldPacketIsStoredInEveryEngineAndCountsAsReceived)
{
    Receiver first("127.0.0.2");
    Receiver second("127.0.0.3");
    MyArqSendCB* const streams[] { &AddStreamTo("127.0.0.2", first), &AddStreamTo("127.0.0.3", second) };
    WithholdEveryOtherPacket();
    OwnedPacket withheld(RtpPacket(10));
    OwnedPacket passed(RtpPacket(11));
    EXPECT_EQ(Send(withheld), 1);
    EXPECT_EQ(Send(passed), 1);
    EXPECT_EQ(m_nDropPacket, 1);
    EXPECT_EQ(m_rx.m_nRxPackets, 2U);
    EXPECT_EQ(m_rx.m_nRxLoss, 0);
    EXPECT_EQ(m_tx.m_nTxPackets, 2U);
    Receiver* const receivers[] { &first, &second };
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(RtpSeq(receivers[i]->Next()), 11);
        AskFor(*streams[i], 10);
        const Bytes recovered = receivers[i]->Next();
        EXPECT_EQ(RtpSeq(recovered), 10);
        EXPECT_EQ(PayloadType(recovered), RETRANSMIT_PAYLOAD_TYPE);
    }
}

TEST_F(FanOutTest, AStreamThatCannotSendDoesNotStopTheOthers)
{
    Receiver receiver("127.0.0.3");
    (void)AddStream("255.255.255.255", 9); // the socket may not send to the broadcast address
    (void)AddStreamTo("127.0.0.3", receiver);
    OwnedPacket packet(RtpPacket(10));
    CapturedOutput output;
    EXPECT_EQ(Send(packet), 1);
    EXPECT_EQ(output.Err(), "SendData failed: Permission denied\n");
    EXPECT_EQ(RtpSeq(receiver.Next()), 10);
    EXPECT_EQ(m_tx.m_nTxPackets, 2U);
}

TEST_F(FanOutTest, AStreamThatIsNotAliveStoresPacketsAndSendsNone)
{
    Receiver receiver("127.0.0.2");
    MyArqSendCB& stream = AddStreamTo("127.0.0.2", receiver);
    const RecordingEngine& engine = ReplaceEngine(stream);
    OwnedPacket packet(RtpPacket(10));
    stream.m_bIsAlive = false;
    {
        const CapturedOutput output;
        EXPECT_EQ(Send(packet), 1);
    }
    EXPECT_EQ(engine.m_stored, (Packets { packet.Get() }));
    EXPECT_FALSE(receiver.HasDatagram());
    EXPECT_EQ(m_tx.m_nTxPackets, 0U);
    EXPECT_EQ(m_tx.m_nTxBytes, 0U);
    stream.m_bIsAlive = true;
    EXPECT_EQ(Send(packet), 1);
    EXPECT_EQ(RtpSeq(receiver.Next()), 10);
}

TEST_F(FanOutTest, SendRawDoesNothingInRtpMode)
{
    Receiver receiver("127.0.0.2");
    const RecordingEngine& engine = ReplaceEngine(AddStreamTo("127.0.0.2", receiver));
    WithholdEveryOtherPacket();
    Bytes payload = Payload(20);
    EXPECT_EQ(SendRaw(payload), 1);
    EXPECT_EQ(SendRaw(payload), 1);
    EXPECT_EQ(engine.m_builtSeqs, std::vector<uint16_t> {});
    EXPECT_EQ(m_nDropPacket, 0);
    EXPECT_EQ(m_rx.m_nRxPackets, 0U);
    EXPECT_FALSE(receiver.HasDatagram());
    EXPECT_EQ(m_tx.m_nTxPackets, 0U);
    EXPECT_EQ(m_fanOut.SeqNum(), 0);
}

TEST_F(FanOutTest, WhileNotRunningEverythingIsDiscardedUncounted)
{
    Receiver receiver("127.0.0.2");
    const RecordingEngine& engine = ReplaceEngine(AddStreamTo("127.0.0.2", receiver));
    WithholdEveryOtherPacket();
    m_bRunning = false;
    OwnedPacket packet(RtpPacket(10));
    const Bytes before = packet.Data();
    EXPECT_EQ(Send(packet), 1);
    EXPECT_EQ(packet.Data(), before) << "not stamped";
    EXPECT_EQ(engine.m_stored, Packets {});
    EXPECT_FALSE(receiver.HasDatagram());
    EXPECT_EQ(m_nDropPacket, 0);
    EXPECT_EQ(m_rx.m_nRxPackets, 0U);
    EXPECT_EQ(m_rx.m_nRxBytes, 0U);
}

// A stream in whose sending something else happens.
class HookedStream : public MyArqSendCB {
public:
    using MyArqSendCB::MyArqSendCB;

    int SendData(PacketBuffer* packet) override
    {
        if (m_onSend)
            m_onSend();
        return MyArqSendCB::SendData(packet);
    }

    std::function<void()> m_onSend;
};

// While the first stream is being sent to, the second leaves and a third joins.
TEST_F(FanOutTest, APacketSeesOneStateOfTheTableWhateverJoinsAndLeavesMeanwhile)
{
    Receiver leaving("127.0.0.3");
    Receiver joining("127.0.0.4");
    auto first = std::make_unique<HookedStream>(m_tx, Net("127.0.0.2"), uint16_t { 9 }, uint32_t { 0 });
    HookedStream& hooked = *first;
    (void)Append(Finish(std::move(first)));
    MyArqSendCB& left = AddStreamTo("127.0.0.3", leaving);
    const RecordingEngine& leftEngine = ReplaceEngine(left);
    auto third = MakeStream("127.0.0.4", joining.Port());
    const RecordingEngine& joinedEngine = ReplaceEngine(*third);
    hooked.m_onSend = [&] {
        Remove(1);
        (void)Append(std::move(third));
        hooked.m_onSend = nullptr;
    };
    OwnedPacket packet(RtpPacket(10));
    EXPECT_EQ(Send(packet), 1);
    EXPECT_EQ(RtpSeq(leaving.Next()), 10);
    EXPECT_EQ(leftEngine.m_stored, (Packets { packet.Get() }));
    EXPECT_FALSE(joining.HasDatagram());
    EXPECT_EQ(joinedEngine.m_stored, Packets {});

    OwnedPacket next(RtpPacket(11));
    EXPECT_EQ(Send(next), 1);
    EXPECT_FALSE(leaving.HasDatagram());
    EXPECT_EQ(leftEngine.m_stored, (Packets { packet.Get() }));
    EXPECT_EQ(RtpSeq(joining.Next()), 11);
    EXPECT_EQ(joinedEngine.m_stored, (Packets { next.Get() }));
}

TEST_F(FanOutTest, WithAMulticastStreamOnlyTheGroupIsSentToAndOnlyTheTableEnginesStore)
{
    Receiver receiver("127.0.0.2");
    Receiver group("127.0.0.3");
    std::vector<int> stored;
    ReplaceEngine(AddStreamTo("127.0.0.2", receiver)).m_onStore = [&](PacketBuffer*) { stored.push_back(0); };
    ReplaceEngine(AddStream("127.0.0.4", 9)).m_onStore = [&](PacketBuffer*) { stored.push_back(1); };
    const auto multicast = MakeStream("127.0.0.3", group.Port());
    ReplaceEngine(*multicast).m_onStore = [&](PacketBuffer*) { stored.push_back(2); };
    m_fanOut.UseMulticast(multicast.get());
    OwnedPacket packet(RtpPacket(10));
    EXPECT_EQ(Send(packet), 1);
    EXPECT_EQ(RtpSeq(group.Next()), 10);
    EXPECT_EQ(stored, (std::vector<int> { 0, 1 }));
    EXPECT_FALSE(receiver.HasDatagram());
    EXPECT_EQ(m_tx.m_nTxPackets, 1U);
}

TEST_F(FanOutTest, AWithheldPacketIsNotSentToTheGroupAndStored)
{
    Receiver group("127.0.0.3");
    const RecordingEngine& engine = ReplaceEngine(AddStream("127.0.0.2", 9));
    const auto multicast = MakeStream("127.0.0.3", group.Port());
    m_fanOut.UseMulticast(multicast.get());
    WithholdEveryOtherPacket();
    OwnedPacket packet(RtpPacket(10));
    EXPECT_EQ(Send(packet), 1);
    EXPECT_FALSE(group.HasDatagram());
    EXPECT_EQ(engine.m_stored, (Packets { packet.Get() }));
}

// Allocations of this thread for a few packets and a request that is answered, with fifty streams.
template <typename Base>
class FiftyStreamsTest : public Base {
protected:
    FiftyStreamsTest()
    {
        for (int i = 2; i < 52; ++i)
            (void)this->AddStream(("127.0.0." + std::to_string(i)).c_str(), 9);
    }

    void ExpectNoAllocation(uint16_t firstSeq)
    {
        OwnedPacket first(RtpPacket(firstSeq));
        OwnedPacket second(RtpPacket(static_cast<uint16_t>(firstSeq + 1)));
        OwnedPacket request(Request({ firstSeq, static_cast<uint16_t>(firstSeq + 1) }));
        const AllocationCount count;
        (void)this->Send(first);
        (void)this->Send(second);
        RouteRequest(this->m_table, request.Get(), Net("127.0.0.2"), 0, {});
        EXPECT_EQ(count.Count(), 0U);
        EXPECT_EQ(this->m_tx.m_nTxPackets, 102U) << "two packets to fifty, and two again to one";
    }
};

using FiftyRtpStreamsTest = FiftyStreamsTest<FanOutTest>;
using FiftyUdpStreamsTest = FiftyStreamsTest<UdpFanOutTest>;

TEST_F(FiftyRtpStreamsTest, NothingIsAllocatedForAnRtpPacketOrARequest)
{
    ExpectNoAllocation(10);
}

TEST_F(FiftyUdpStreamsTest, NothingIsAllocatedForADatagramInUdpModeOrARequest)
{
    ExpectNoAllocation(1);
}

} // namespace
