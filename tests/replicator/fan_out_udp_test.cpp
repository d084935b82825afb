// UDP input: numbered, built by each engine, sent one stream after the other.
#include "replicator/fan_out.h"

#include <initializer_list>
#include <vector>

#include <gtest/gtest.h>

#include "arq/media_header.h"
#include "support/fan_out_fixture.h"

namespace {

using namespace test_support;

using Numbers = std::vector<uint16_t>;

TEST_F(UdpFanOutTest, EveryDatagramGetsAHeaderWithTheNextNumberFrom1)
{
    Receiver receiver("127.0.0.2");
    (void)AddStreamTo("127.0.0.2", receiver);
    const Bytes payload = Payload(1316);
    OwnedPacket first(payload);
    OwnedPacket second(Bytes { 5 }); // shorter than an RTP header would be
    EXPECT_EQ(Send(first), 1);
    EXPECT_EQ(Send(second), 1);
    const Bytes got = receiver.Next();
    ASSERT_EQ(got.size(), 12U + 1316U);
    EXPECT_EQ(got[0], 0x80);
    EXPECT_EQ(got[1], 0x21);
    EXPECT_EQ(RtpSeq(got), 1);
    EXPECT_EQ(reinterpret_cast<const MediaHeader*>(got.data())->timestamp.Get(), NOW);
    EXPECT_EQ(Bytes(got.begin() + 12, got.end()), payload);
    const Bytes next = receiver.Next();
    EXPECT_EQ(RtpSeq(next), 2);
    EXPECT_EQ(next.back(), 5);
    EXPECT_EQ(m_rx.m_nRxPackets, 2U);
    EXPECT_EQ(m_rx.m_nRxBytes, 1317U);
    EXPECT_EQ(m_rx.m_nRxLoss, 0);
}

TEST_F(UdpFanOutTest, ZeroFollowsNumber65535)
{
    Bytes payload { 7 };
    for (int i = 0; i < 65534; ++i)
        ASSERT_EQ(SendRaw(payload), 1);
    Receiver receiver("127.0.0.2");
    (void)AddStreamTo("127.0.0.2", receiver);
    for (const uint16_t seq : std::initializer_list<uint16_t> { 65535, 0, 1 }) {
        EXPECT_EQ(SendRaw(payload), 1);
        EXPECT_EQ(RtpSeq(receiver.Next()), seq);
        EXPECT_EQ(m_fanOut.SeqNum(), seq);
    }
}

TEST_F(UdpFanOutTest, AStreamIsSentBeforeTheNextEngineBuildsItsCopy)
{
    Receiver first("127.0.0.2");
    Receiver second("127.0.0.3");
    RecordingEngine& engine0 = ReplaceEngine(AddStreamTo("127.0.0.2", first));
    RecordingEngine& engine1 = ReplaceEngine(AddStreamTo("127.0.0.3", second));
    engine0.m_onBuild = [&] { EXPECT_FALSE(first.HasDatagram()); };
    engine1.m_onBuild = [&] {
        EXPECT_TRUE(first.HasDatagram());
        EXPECT_FALSE(second.HasDatagram());
    };
    Bytes payload { 7 };
    EXPECT_EQ(SendRaw(payload), 1);
    EXPECT_TRUE(second.HasDatagram());
    EXPECT_EQ(engine0.m_builtSeqs, (Numbers { 1 }));
    EXPECT_EQ(engine1.m_builtSeqs, (Numbers { 1 }));
}

TEST_F(UdpFanOutTest, AWithheldPacketTakesANumberAndCanBeRequested)
{
    Receiver receiver("127.0.0.2");
    MyArqSendCB& stream = AddStreamTo("127.0.0.2", receiver);
    WithholdEveryOtherPacket();
    Bytes payload { 7 };
    EXPECT_EQ(SendRaw(payload), 1);
    EXPECT_EQ(SendRaw(payload), 1);
    EXPECT_EQ(RtpSeq(receiver.Next()), 2);
    EXPECT_EQ(m_nDropPacket, 1);
    AskFor(stream, 1);
    const Bytes recovered = receiver.Next();
    EXPECT_EQ(RtpSeq(recovered), 1);
    EXPECT_EQ(PayloadType(recovered), RETRANSMIT_PAYLOAD_TYPE);
}

TEST_F(UdpFanOutTest, AStreamThatIsNotAliveBuildsPacketsAndSendsNone)
{
    Receiver receiver("127.0.0.2");
    MyArqSendCB& stream = AddStreamTo("127.0.0.2", receiver);
    const RecordingEngine& engine = ReplaceEngine(stream);
    OwnedPacket packet(Payload(20));
    stream.m_bIsAlive = false;
    {
        const CapturedOutput output;
        EXPECT_EQ(Send(packet), 1);
        EXPECT_EQ(Send(packet), 1);
    }
    EXPECT_EQ(engine.m_builtSeqs, (Numbers { 1, 2 }));
    EXPECT_FALSE(receiver.HasDatagram());
    EXPECT_EQ(m_tx.m_nTxPackets, 0U);
    stream.m_bIsAlive = true;
    EXPECT_EQ(Send(packet), 1);
    EXPECT_EQ(receiver.Next(), packet.Data());
}

TEST_F(UdpFanOutTest, WhileNotRunningEverythingIsDiscardedUncountedAndUnnumbered)
{
    Receiver receiver("127.0.0.2");
    const RecordingEngine& engine = ReplaceEngine(AddStreamTo("127.0.0.2", receiver));
    m_bRunning = false;
    OwnedPacket packet(Payload(20));
    Bytes payload { 1 };
    EXPECT_EQ(Send(packet), 1);
    EXPECT_EQ(SendRaw(payload), 1);
    EXPECT_FALSE(receiver.HasDatagram());
    EXPECT_EQ(engine.m_builtSeqs, Numbers {});
    EXPECT_EQ(m_rx.m_nRxPackets, 0U);
    EXPECT_EQ(m_rx.m_nRxBytes, 0U);
    EXPECT_EQ(m_fanOut.SeqNum(), 0);
}

// While the first engine builds, the second stream leaves and a third joins.
TEST_F(UdpFanOutTest, ADatagramSeesOneStateOfTheTableWhateverJoinsAndLeavesMeanwhile)
{
    Receiver leaving("127.0.0.3");
    Receiver joining("127.0.0.4");
    RecordingEngine& first = ReplaceEngine(AddStream("127.0.0.2", 9));
    const RecordingEngine& left = ReplaceEngine(AddStreamTo("127.0.0.3", leaving));
    auto third = MakeStream("127.0.0.4", joining.Port());
    const RecordingEngine& joined = ReplaceEngine(*third);
    first.m_onBuild = [&] {
        Remove(1);
        (void)Append(std::move(third));
        first.m_onBuild = nullptr;
    };
    Bytes payload { 7 };
    EXPECT_EQ(SendRaw(payload), 1);
    EXPECT_EQ(SendRaw(payload), 1);
    EXPECT_EQ(first.m_builtSeqs, (Numbers { 1, 2 }));
    EXPECT_EQ(left.m_builtSeqs, (Numbers { 1 }));
    EXPECT_EQ(joined.m_builtSeqs, (Numbers { 2 }));
    (void)leaving.Next();
    (void)joining.Next();
    EXPECT_FALSE(leaving.HasDatagram());
    EXPECT_FALSE(joining.HasDatagram());
}

// With a multicast destination.
class UdpMulticastFanOutTest : public UdpFanOutTest {
protected:
    UdpMulticastFanOutTest() { m_fanOut.UseMulticast(m_multicast.get()); }

    Receiver m_receiver { "127.0.0.2" };
    Receiver m_group { "127.0.0.3" };
    std::unique_ptr<MyArqSendCB> m_multicast = MakeStream("127.0.0.3", m_group.Port());
    RecordingEngine& m_engine0 = ReplaceEngine(AddStreamTo("127.0.0.2", m_receiver));
    RecordingEngine& m_engine1 = ReplaceEngine(AddStream("127.0.0.4", 9));
    RecordingEngine& m_groupEngine = ReplaceEngine(*m_multicast);
};

TEST_F(UdpMulticastFanOutTest, AllEnginesBuildAndOnlyTheGroupIsSentTo)
{
    std::vector<int> order;
    m_engine0.m_onBuild = [&] { order.push_back(0); };
    m_engine1.m_onBuild = [&] { order.push_back(1); };
    m_groupEngine.m_onBuild = [&] { order.push_back(2); };
    Bytes payload { 7 };
    EXPECT_EQ(SendRaw(payload), 1);
    EXPECT_EQ(m_group.Next(), payload);
    EXPECT_EQ(order, (std::vector<int> { 0, 1, 2 }));
    EXPECT_EQ(m_engine1.m_builtSeqs, (Numbers { 1 }));
    EXPECT_EQ(m_groupEngine.m_builtSeqs, (Numbers { 1 }));
    EXPECT_FALSE(m_receiver.HasDatagram());
    EXPECT_EQ(m_tx.m_nTxPackets, 1U);
}

TEST_F(UdpMulticastFanOutTest, AWithheldPacketIsNotSentToTheGroupButBuiltByAllEngines)
{
    WithholdEveryOtherPacket();
    Bytes payload { 7 };
    EXPECT_EQ(SendRaw(payload), 1);
    EXPECT_FALSE(m_group.HasDatagram());
    EXPECT_EQ(m_tx.m_nTxPackets, 0U);
    EXPECT_EQ(m_engine0.m_builtSeqs, (Numbers { 1 }));
    EXPECT_EQ(m_groupEngine.m_builtSeqs, (Numbers { 1 }));
}

} // namespace
