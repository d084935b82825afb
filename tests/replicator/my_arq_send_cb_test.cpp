#include "replicator/my_arq_send_cb.h"

#include <fcntl.h>

#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "replicator/captured_output.h"
#include "replicator/loopback.h"
#include "support/recording_engine.h"

namespace {

using test_support::Bytes;
using test_support::CapturedOutput;
using test_support::Net;
using test_support::OwnedPacket;
using test_support::Receiver;

const Bytes STOP { 0xDE, 0xAD, 0xBE, 0xEF, 0xBA, 0xBE, 0xFA, 0xCE };

bool IsOpen(int fd)
{
    return fcntl(fd, F_GETFD) != -1;
}

class MyArqSendCBTest : public testing::Test {
protected:
    // A living stream to the receiver with a socket of its own.
    std::unique_ptr<MyArqSendCB> MakeStream()
    {
        auto stream = MakeStreamWithoutSocket();
        stream->OpenSocket();
        return stream;
    }
    std::unique_ptr<MyArqSendCB> MakeStreamWithoutSocket()
    {
        auto stream
            = std::make_unique<MyArqSendCB>(m_stats, Net("127.0.0.2"), m_receiver.Port(), uint32_t { 0 });
        stream->m_bIsAlive = 1;
        return stream;
    }

    TransmitStats m_stats;
    Receiver m_receiver { "127.0.0.2" };
};

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

TEST_F(MyArqSendCBTest, TheOwnSocketMayShareItsPortAndIsClosedWithTheStream)
{
    auto stream = MakeStream();
    const int fd = stream->SocketNumber(0);
    EXPECT_TRUE(stream->OwnsSockets());
    int reuse = 0;
    socklen_t size = sizeof(reuse);
    ASSERT_EQ(getsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &reuse, &size), 0);
    EXPECT_EQ(reuse, 1);
    stream.reset();
    EXPECT_FALSE(IsOpen(fd));
}

TEST_F(MyArqSendCBTest, ABorrowedSocketOutlivesOwnerOrBorrowerWhicheverGoesFirst)
{
    auto owner = MakeStream();
    auto borrower = MakeStreamWithoutSocket();
    borrower->BorrowSocket(owner->ShareSocket(0));
    const int fd = owner->SocketNumber(0);
    EXPECT_EQ(borrower->SocketNumber(0), fd);
    EXPECT_FALSE(borrower->OwnsSockets());
    borrower.reset();
    EXPECT_TRUE(IsOpen(fd));

    borrower = MakeStreamWithoutSocket();
    borrower->BorrowSocket(owner->ShareSocket(0));
    owner.reset();
    OwnedPacket packet(Bytes { 9 });
    EXPECT_EQ(borrower->SendData(packet.Get()), 1);
    EXPECT_EQ(m_receiver.Next(), (Bytes { 9 }));
    borrower.reset();
    EXPECT_FALSE(IsOpen(fd));
}

TEST_F(MyArqSendCBTest, AdoptingReplacesTheOwnSocketInOneStepAndKeepsItsNumber)
{
    const auto stream = MakeStream();
    const Receiver pingSocket("127.0.0.1");
    const int fd = stream->SocketNumber(0);
    EXPECT_TRUE(stream->AdoptSocket(pingSocket.Fd()));
    EXPECT_EQ(stream->SocketNumber(0), fd);
    OwnedPacket packet(Bytes { 1 });
    EXPECT_EQ(stream->SendData(packet.Get()), 1);
    (void)m_receiver.Next();
    EXPECT_EQ(m_receiver.SourcePort(), pingSocket.Port());
}

TEST_F(MyArqSendCBTest, AnAdoptedSocketOutlivesThePingSocket)
{
    const auto stream = MakeStream();
    {
        const Receiver pingSocket("127.0.0.1");
        EXPECT_TRUE(stream->AdoptSocket(pingSocket.Fd()));
    }
    OwnedPacket packet(Bytes { 1 });
    EXPECT_EQ(stream->SendData(packet.Get()), 1);
    EXPECT_EQ(m_receiver.Next(), (Bytes { 1 }));
}

TEST_F(MyArqSendCBTest, AdoptingOnABorrowedSocketLeavesTheOwnersSocketAlone)
{
    const auto owner = MakeStream();
    auto borrower = MakeStreamWithoutSocket();
    borrower->BorrowSocket(owner->ShareSocket(0));
    const Receiver pingSocket("127.0.0.1");
    EXPECT_TRUE(borrower->AdoptSocket(pingSocket.Fd()));
    EXPECT_NE(borrower->SocketNumber(0), owner->SocketNumber(0));
    EXPECT_TRUE(borrower->OwnsSockets());
    OwnedPacket packet(Bytes { 1 });
    EXPECT_EQ(borrower->SendData(packet.Get()), 1);
    (void)m_receiver.Next();
    EXPECT_EQ(m_receiver.SourcePort(), pingSocket.Port());
    EXPECT_EQ(owner->SendData(packet.Get()), 1);
    (void)m_receiver.Next();
    EXPECT_NE(m_receiver.SourcePort(), pingSocket.Port());
}

TEST_F(MyArqSendCBTest, AdoptingPutsASocketWhereNoneCouldBeMade)
{
    const auto stream = MakeStreamWithoutSocket();
    const Receiver pingSocket("127.0.0.1");
    EXPECT_TRUE(stream->AdoptSocket(pingSocket.Fd()));
    OwnedPacket packet(Bytes { 1 });
    EXPECT_EQ(stream->SendData(packet.Get()), 1);
    EXPECT_EQ(m_receiver.Next(), (Bytes { 1 }));
}

TEST_F(MyArqSendCBTest, MediaGoOnFromTheOldSocketWhenAdoptingFails)
{
    const auto stream = MakeStream();
    auto borrower = MakeStreamWithoutSocket();
    borrower->BorrowSocket(stream->ShareSocket(0));
    CapturedOutput output;
    EXPECT_FALSE(stream->AdoptSocket(-1));
    EXPECT_FALSE(borrower->AdoptSocket(-1));
    EXPECT_EQ(output.Err(), "dup2 failed: Bad file descriptor\ndup failed: Bad file descriptor\n");
    OwnedPacket packet(Bytes { 1 });
    EXPECT_EQ(stream->SendData(packet.Get()), 1);
    EXPECT_EQ(borrower->SendData(packet.Get()), 1);
    EXPECT_EQ(m_receiver.Next(), (Bytes { 1 }));
    EXPECT_EQ(m_receiver.Next(), (Bytes { 1 }));
}

TEST_F(MyArqSendCBTest, WhatIsStillSentAfterTheCutOffFailsInSilence)
{
    const auto stream = MakeStream();
    stream->CutOff();
    OwnedPacket packet(Bytes { 1 });
    CapturedOutput output;
    EXPECT_EQ(stream->SendData(packet.Get()), 0);
    EXPECT_EQ(output.Err(), "");
    EXPECT_FALSE(m_receiver.HasDatagram());
}

TEST_F(MyArqSendCBTest, TheCutOffLeavesASocketThatOthersSendFromAsItIs)
{
    const auto owner = MakeStream();
    auto borrower = MakeStreamWithoutSocket();
    borrower->BorrowSocket(owner->ShareSocket(0));
    const auto adopter = MakeStream();
    const Receiver pingSocket("127.0.0.1");
    EXPECT_TRUE(adopter->AdoptSocket(pingSocket.Fd()));
    for (MyArqSendCB* stream : { owner.get(), borrower.get(), adopter.get() })
        stream->CutOff();
    OwnedPacket packet(Bytes { 1 });
    for (MyArqSendCB* stream : { owner.get(), borrower.get(), adopter.get() }) {
        EXPECT_EQ(stream->SendData(packet.Get()), 1);
        EXPECT_EQ(m_receiver.Next(), (Bytes { 1 }));
    }
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
    const uint16_t port0 = test_support::LocalPort(stream->SocketNumber(0));
    const uint16_t port1 = test_support::LocalPort(stream->SocketNumber(1));
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
    EXPECT_EQ(m_receiver.SourcePort(), test_support::LocalPort(stream->SocketNumber(1)));
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
    class LeavingEngine : public test_support::RecordingEngine {
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
