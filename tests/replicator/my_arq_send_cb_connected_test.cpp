// A stream whose own socket may be connected.
#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <memory>

#include <gtest/gtest.h>

#include "replicator/connected_socket.h"
#include "replicator/my_arq_send_cb.h"
#include "support/my_arq_send_cb_fixture.h"
#include "support/send_hooks.h"
#include "support/system_hooks.h"

namespace {

using namespace test_support;

// Tells sockets apart that have the same descriptor one after the other.
ino_t Inode(int fd)
{
    struct stat status {};
    EXPECT_EQ(fstat(fd, &status), 0);
    return status.st_ino;
}

class ConnectedStream : public MyArqSendCBTest {
protected:
    int Fd() const { return m_stream->SocketNumber(0); }
    bool IsConnected() const { return m_stream->Target().isConnected; }
    // A packet arrives, by that call.
    void ExpectSent(SendKind kind)
    {
        const WatchedSends sends;
        EXPECT_EQ(m_stream->SendData(m_packet.Get()), 1);
        EXPECT_EQ(m_receiver.Next(), m_packet.Data());
        EXPECT_FALSE(m_receiver.HasDatagram());
        ASSERT_EQ(sends.Calls().size(), 1U);
        EXPECT_EQ(sends.Calls()[0].kind, kind);
    }

    std::unique_ptr<MyArqSendCB> m_stream = MakeStream();
    OwnedPacket m_packet { RtpPacket(1) };
    const PortLease m_source; // for a socket of one address: its twin needs the port on any other
};

TEST_F(ConnectedStream, SendsWithoutNamingTheAddressAndSharesItsSocketWithNobody)
{
    m_stream->UseConnectedSocket();
    EXPECT_TRUE(IsConnected());
    EXPECT_EQ(m_stream->SharedSocketKey(), -1);
    ExpectSent(SendKind::Send);
}

TEST_F(ConnectedStream, WithoutAWayItNamesTheAddressUntilThereIsOne)
{
    {
        const FailCalls connects(SystemCall::Connect, ENETUNREACH, 1, 2);
        m_stream->UseConnectedSocket();
        EXPECT_FALSE(IsConnected());
        m_stream->FollowRoute();
        EXPECT_EQ(connects.Count(), 2);
    }
    EXPECT_FALSE(IsConnected());
    ExpectSent(SendKind::SendTo);
    m_stream->FollowRoute();
    EXPECT_TRUE(IsConnected());
    ExpectSent(SendKind::Send);
}

TEST_F(ConnectedStream, AStreamThatMayNotBeConnectedIsNot)
{
    const FailCalls connects(SystemCall::Connect, 0, 0, 0);
    m_stream->FollowRoute();
    EXPECT_EQ(connects.Calls(), 0);
    EXPECT_FALSE(IsConnected());
    ExpectSent(SendKind::SendTo);
}

TEST_F(ConnectedStream, ASocketThatCouldNotBeMadeIsNotConnected)
{
    m_stream = MakeStreamWithoutSocket();
    const FailCalls connects(SystemCall::Connect, 0, 0, 0);
    m_stream->UseConnectedSocket();
    EXPECT_EQ(connects.Calls(), 0);
    EXPECT_FALSE(IsConnected());
}

TEST_F(ConnectedStream, WhileTheRouteStaysSoDoesTheSocket)
{
    m_stream->UseConnectedSocket();
    const ino_t before = Inode(Fd());
    m_stream->FollowRoute();
    EXPECT_EQ(Inode(Fd()), before);
    EXPECT_TRUE(IsConnected());
}

// The socket was connected while another source address was the one to use.
TEST_F(ConnectedStream, ANewSourceAddressMeansANewSocketOnTheSamePortBehindTheSameDescriptor)
{
    ASSERT_TRUE(Bind(Fd(), "127.0.0.9", m_source.Port()));
    m_stream->UseConnectedSocket();
    const int fd = Fd();
    const uint16_t port = LocalPort(fd);
    ASSERT_EQ(SourceOf(fd), Net("127.0.0.9"));
    m_stream->FollowRoute();
    EXPECT_EQ(Fd(), fd);
    EXPECT_EQ(LocalPort(fd), port);
    EXPECT_EQ(SourceOf(fd), RoutedSource(m_stream->Target().address));
    ExpectSent(SendKind::Send);
    EXPECT_EQ(m_receiver.SourcePort(), port);
}

TEST_F(ConnectedStream, WhoStandsInASendOnTheSocketThatIsReplacedIsLetGo)
{
    ASSERT_TRUE(Bind(Fd(), "127.0.0.9", m_source.Port()));
    m_stream->UseConnectedSocket();
    const UniqueFd old(dup(Fd())); // as the kernel holds it for that sender
    m_stream->FollowRoute();
    EXPECT_EQ(send(old.Get(), "", 0, MSG_DONTWAIT), -1);
    EXPECT_EQ(errno, EPIPE);
    ExpectSent(SendKind::Send);
}

TEST_F(ConnectedStream, WithoutAWayOrATwinTheSocketStays)
{
    ASSERT_TRUE(Bind(Fd(), "127.0.0.9", m_source.Port()));
    m_stream->UseConnectedSocket();
    const ino_t before = Inode(Fd());
    {
        const FailCalls connects(SystemCall::Connect, ENETUNREACH, 1); // no source
        m_stream->FollowRoute();
    }
    EXPECT_EQ(Inode(Fd()), before);
    {
        const FailCalls connects(SystemCall::Connect, ENETUNREACH, 2, 2); // no twin
        m_stream->FollowRoute();
        EXPECT_EQ(connects.Count(), 1);
    }
    EXPECT_EQ(Inode(Fd()), before);
    EXPECT_TRUE(IsConnected());
    ExpectSent(SendKind::Send);
}

TEST_F(ConnectedStream, AClosedPortIsNeverReportedAndEveryDatagramCounts)
{
    const PortLease closed;
    auto stream = std::make_unique<MyArqSendCB>(m_stats, Net("127.0.0.2"), closed.Port(), uint32_t { 0 });
    stream->OpenSocket();
    stream->UseConnectedSocket();
    stream->m_bIsAlive = true;
    PacketBuffer* const packets[] { m_packet.Get(), m_packet.Get(), m_packet.Get() };
    CapturedOutput output;
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(stream->SendData(m_packet.Get()), 1);
        EXPECT_EQ(stream->SendUnlessWaiting(packets, 3), 3);
        stream->SendStop();
    }
    EXPECT_EQ(output.Err(), "");
    EXPECT_EQ(m_stats.m_nTxPackets, 16U);
    EXPECT_EQ(m_stats.m_nTxBytes, 16 * m_packet.Data().size());
}

} // namespace
