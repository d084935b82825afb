#include "replicator/my_arq_send_cb.h"

#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "support/my_arq_send_cb_fixture.h"
#include "support/no_free_descriptor.h"
#include "support/recording_engine.h"

namespace {

using namespace test_support;

const Bytes STOP { 0xDE, 0xAD, 0xBE, 0xEF, 0xBA, 0xBE, 0xFA, 0xCE };

TEST_F(MyArqSendCBTest, AStreamToLoopbackIsAliveAndStaticAtOnce)
{
    const MyArqSendCB stream(m_stats, Net("127.0.0.1"), 5000, 0);
    EXPECT_TRUE(stream.m_bIsAlive);
    EXPECT_TRUE(stream.m_life.HasStarted());
    EXPECT_TRUE(stream.m_life.IsStatic());
}

TEST_F(MyArqSendCBTest, AStreamToAnyOtherAddressIsNotAliveYet)
{
    const MyArqSendCB stream(m_stats, Net("127.0.0.2"), 5000, 7);
    EXPECT_FALSE(stream.m_bIsAlive);
    EXPECT_FALSE(stream.m_life.HasStarted());
    EXPECT_FALSE(stream.m_life.IsStatic());
    EXPECT_EQ(stream.m_life.PingCount(), 0U);
    EXPECT_EQ(stream.m_life.MediaPortNet(), 0);
    EXPECT_EQ(stream.StreamId(), 7U);
    EXPECT_STREQ(stream.HostText(), "127.0.0.2");
    EXPECT_EQ(stream.AddressNet(), Net("127.0.0.2"));
    EXPECT_EQ(stream.ConfiguredPort(), 5000);
    EXPECT_EQ(stream.DestinationPortNet(), htons(5000));
    for (int32_t i = 0; i < SocketChooser::MAX_SOCKETS; ++i)
        EXPECT_EQ(stream.SocketNumber(i), -1);
}

TEST_F(MyArqSendCBTest, AStreamThatIsNotAliveSaysSoForEveryDatagramAndSendsNothing)
{
    const auto stream = MakeStream();
    stream->m_bIsAlive = 0;
    OwnedPacket packet(Bytes { 1, 2 });
    CapturedOutput output;
    EXPECT_EQ(stream->SendData(packet.Get()), 1);
    EXPECT_EQ(stream->SendData(packet.Get()), 1);
    EXPECT_EQ(output.Err(), "SendData:: m_bIsAlive is false\nSendData:: m_bIsAlive is false\n");
    EXPECT_EQ(m_stats.m_nTxPackets, 0U);
    EXPECT_EQ(m_stats.m_nTxBytes, 0U);
    EXPECT_FALSE(m_receiver.HasDatagram());
}

TEST_F(MyArqSendCBTest, ALivingStreamSendsToItsDestinationAndCounts)
{
    const auto stream = MakeStream();
    OwnedPacket packet(Bytes { 1, 2, 3 });
    EXPECT_EQ(stream->SendData(packet.Get()), 1);
    EXPECT_EQ(m_receiver.Next(), (Bytes { 1, 2, 3 }));
    EXPECT_EQ(m_stats.m_nTxPackets, 1U);
    EXPECT_EQ(m_stats.m_nTxBytes, 3U);
}

TEST_F(MyArqSendCBTest, TwoPiecesAreOneDatagramAndBothCount)
{
    const auto stream = MakeStream();
    OwnedPacket packet(Bytes { 1, 2, 3 }, Bytes { 4, 5 });
    EXPECT_EQ(stream->SendData(packet.Get()), 1);
    EXPECT_EQ(m_receiver.Next(), (Bytes { 1, 2, 3, 4, 5 }));
    EXPECT_EQ(m_stats.m_nTxPackets, 1U);
    EXPECT_EQ(m_stats.m_nTxBytes, 5U);
}

TEST_F(MyArqSendCBTest, TheDatagramCounterPassesTwoToThe32)
{
    const auto stream = MakeStream();
    m_stats.m_nTxPackets = 0xFFFFFFFFU;
    OwnedPacket packet(Bytes { 1 });
    EXPECT_EQ(stream->SendData(packet.Get()), 1);
    EXPECT_EQ(m_stats.m_nTxPackets, 0x100000000U);
}

TEST_F(MyArqSendCBTest, AFailedSendIsReportedAndStaysCounted)
{
    const auto stream = MakeStreamWithoutSocket();
    OwnedPacket packet(Bytes { 1, 2, 3 });
    CapturedOutput output;
    EXPECT_EQ(stream->SendData(packet.Get()), 0);
    EXPECT_EQ(output.Err(), "SendData failed: Bad file descriptor\n");
    EXPECT_EQ(m_stats.m_nTxPackets, 1U);
    EXPECT_EQ(m_stats.m_nTxBytes, 0U);
}

TEST_F(MyArqSendCBTest, TheDestinationPortCanBeChanged)
{
    const auto stream = MakeStream();
    Receiver other("127.0.0.2");
    stream->SetDestinationPortNet(htons(other.Port()));
    OwnedPacket packet(Bytes { 1 });
    EXPECT_EQ(stream->SendData(packet.Get()), 1);
    EXPECT_EQ(other.Next(), (Bytes { 1 }));
    EXPECT_FALSE(m_receiver.HasDatagram());
    EXPECT_EQ(stream->ConfiguredPort(), m_receiver.Port());
}

// Takes the sockets off whatever interfaces there are, so that they reach loopback.
void Unbind(const MyArqSendCB& stream, int32_t count)
{
    for (int32_t i = 0; i < count; ++i)
        (void)setsockopt(stream.SocketNumber(i), SOL_SOCKET, SO_BINDTODEVICE, "", 0);
}

TEST_F(MyArqSendCBTest, DatagramsAreSharedOutBetweenTheInterfacesByWeight)
{
    const auto stream = MakeStream();
    {
        const CapturedOutput output;
        stream->BindInterfaces(2, 70);
    }
    Unbind(*stream, 2);
    EXPECT_NE(stream->SocketNumber(0), stream->SocketNumber(1));
    EXPECT_EQ(stream->SocketNumber(2), -1);
    OwnedPacket packet(Bytes { 1 });
    std::vector<uint16_t> ports;
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(stream->SendData(packet.Get()), 1);
        (void)m_receiver.Next();
        ports.push_back(m_receiver.SourcePort());
    }
    const uint16_t port0 = LocalPort(stream->SocketNumber(0));
    const uint16_t port1 = LocalPort(stream->SocketNumber(1));
    EXPECT_NE(port0, port1);
    EXPECT_EQ(ports, (std::vector<uint16_t> { port0, port0, port0, port1, port0 }));
}

TEST_F(MyArqSendCBTest, AFailedSendMovesOnToTheNextSocketToo)
{
    const auto stream = MakeStream();
    {
        const CapturedOutput output;
        stream->BindInterfaces(2, 0);
    }
    Unbind(*stream, 2);
    OwnedPacket tooLong { Bytes(65536) };
    {
        const CapturedOutput output;
        EXPECT_EQ(stream->SendData(tooLong.Get()), 0);
    }
    OwnedPacket packet(Bytes { 1 });
    EXPECT_EQ(stream->SendData(packet.Get()), 1);
    (void)m_receiver.Next();
    EXPECT_EQ(m_receiver.SourcePort(), LocalPort(stream->SocketNumber(1)));
}

TEST_F(MyArqSendCBTest, NoMoreThanFourInterfacesAreUsed)
{
    auto stream = MakeStream();
    {
        const CapturedOutput output;
        stream->BindInterfaces(9, 50);
    }
    std::vector<int> sockets;
    for (int32_t i = 0; i < SocketChooser::MAX_SOCKETS; ++i) {
        EXPECT_TRUE(IsOpen(stream->SocketNumber(i))) << i;
        sockets.push_back(stream->SocketNumber(i));
    }
    stream.reset();
    for (const int fd : sockets)
        EXPECT_FALSE(IsOpen(fd));
}

TEST_F(MyArqSendCBTest, ANegativeInterfaceNumberIsTakenAsOne)
{
    const auto stream = MakeStream();
    const CapturedOutput output;
    stream->BindInterfaces(-1, 0);
    EXPECT_TRUE(IsOpen(stream->SocketNumber(0)));
    EXPECT_EQ(stream->SocketNumber(1), -1);
}

TEST_F(MyArqSendCBTest, AnInterfaceWhoseSocketCannotBeMadeIsReportedAndTheOthersUsed)
{
    const auto stream = MakeStream();
    CapturedOutput output;
    {
        const NoFreeDescriptor none;
        stream->BindInterfaces(2, 50);
    }
    EXPECT_NE(output.Err().find("SO_BINDTODEVICE failed: Bad file descriptor\n"), std::string::npos);
    EXPECT_TRUE(IsOpen(stream->SocketNumber(0)));
    EXPECT_EQ(stream->SocketNumber(1), -1);
}

// Without a socket no interface can be used, whatever interfaces the machine has.
TEST_F(MyArqSendCBTest, AnInterfaceThatCannotBeUsedIsReportedAndTheStreamKept)
{
    const auto stream = MakeStreamWithoutSocket();
    CapturedOutput output;
    stream->BindInterfaces(1, 50);
    EXPECT_EQ(output.Err(), "SO_BINDTODEVICE failed: Bad file descriptor\n");
}

TEST_F(MyArqSendCBTest, TheStopMessageGoesOutOnceUncountedAliveOrNot)
{
    const auto stream = MakeStream();
    stream->SendStop();
    EXPECT_EQ(m_receiver.Next(), STOP);
    stream->m_bIsAlive = 0;
    stream->SendStop();
    EXPECT_EQ(m_receiver.Next(), STOP);
    EXPECT_FALSE(m_receiver.HasDatagram());
    EXPECT_EQ(m_stats.m_nTxPackets, 0U);
    EXPECT_EQ(m_stats.m_nTxBytes, 0U);
}

TEST_F(MyArqSendCBTest, StopMessagesTakeTurnsOnTheSocketsAsMediaDo)
{
    const auto stream = MakeStream();
    {
        const CapturedOutput output;
        stream->BindInterfaces(2, 50);
    }
    Unbind(*stream, 2);
    stream->SendStop();
    (void)m_receiver.Next();
    const uint16_t first = m_receiver.SourcePort();
    stream->SendStop();
    (void)m_receiver.Next();
    EXPECT_NE(m_receiver.SourcePort(), first);
}

TEST_F(MyArqSendCBTest, TheEngineIsDestroyedWhileItsStreamIsStillWhole)
{
    class LeavingEngine : public RecordingEngine {
    public:
        LeavingEngine(const MyArqSendCB& stream, bool& wasOpen) : m_stream(stream), m_wasOpen(wasOpen) {}
        ~LeavingEngine() override { m_wasOpen = IsOpen(m_stream.SocketNumber(0)); }

    private:
        const MyArqSendCB& m_stream;
        bool& m_wasOpen;
    };
    bool wasOpen = false;
    auto stream = MakeStream();
    stream->m_pEngine = std::make_unique<LeavingEngine>(*stream, wasOpen);
    stream.reset();
    EXPECT_TRUE(wasOpen);
}

} // namespace
