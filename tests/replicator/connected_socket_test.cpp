#include "replicator/connected_socket.h"

#include <sys/socket.h>

#include <cerrno>

#include <gtest/gtest.h>

#include "support/loopback.h"
#include "support/system_hooks.h"

namespace {

using namespace test_support;

bool IsConnectedTo(int fd, const sockaddr_in& address)
{
    sockaddr_in peer {};
    socklen_t size = sizeof(peer);
    return getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &size) == 0
        && peer.sin_addr.s_addr == address.sin_addr.s_addr && peer.sin_port == address.sin_port;
}

bool SendsWithoutAddress(int fd)
{
    return send(fd, "1", 1, 0) == 1;
}

class ConnectedSocket : public testing::Test {
protected:
    ConnectedSocket() : m_socket(socket(AF_INET, SOCK_DGRAM, 0)) { AllowReuse(m_socket.Get()); }

    Receiver m_receiver { "127.0.0.2" };
    const sockaddr_in m_address = SocketAddress("127.0.0.2", m_receiver.Port());
    const sockaddr_in m_nowhere = SocketAddress("255.255.255.255", 9); // the socket may not send there
    const UniqueFd m_socket;
    const PortLease m_source; // for a socket of one address: its twin needs the port on any other
};

TEST_F(ConnectedSocket, SendsToItsAddress)
{
    EXPECT_TRUE(ConnectSocket(m_socket.Get(), m_address));
    EXPECT_TRUE(IsConnectedTo(m_socket.Get(), m_address));
    EXPECT_TRUE(SendsWithoutAddress(m_socket.Get()));
    EXPECT_EQ(m_receiver.Next(), (Bytes { '1' }));
}

TEST_F(ConnectedSocket, WithoutAWayTheSocketStaysAsItWas)
{
    EXPECT_FALSE(ConnectSocket(m_socket.Get(), m_nowhere));
    EXPECT_FALSE(SendsWithoutAddress(m_socket.Get()));
    EXPECT_EQ(
        sendto(m_socket.Get(), "1", 1, 0, reinterpret_cast<const sockaddr*>(&m_address), sizeof(m_address)),
        1);
}

TEST_F(ConnectedSocket, ItsSourceIsTheOneThatRoutingChoseAndTheReceiverSees)
{
    EXPECT_EQ(SourceOf(m_socket.Get()), 0U);
    ASSERT_TRUE(ConnectSocket(m_socket.Get(), m_address));
    EXPECT_NE(SourceOf(m_socket.Get()), 0U);
    EXPECT_EQ(SourceOf(m_socket.Get()), RoutedSource(m_address));
}

TEST_F(ConnectedSocket, ItsSourceStaysWhateverRoutingChoosesNow)
{
    ASSERT_TRUE(Bind(m_socket.Get(), "127.0.0.9", m_source.Port()));
    ASSERT_TRUE(ConnectSocket(m_socket.Get(), m_address));
    EXPECT_EQ(SourceOf(m_socket.Get()), Net("127.0.0.9"));
    EXPECT_NE(RoutedSource(m_address), Net("127.0.0.9"));
}

TEST_F(ConnectedSocket, WithoutAWayOrASocketThereIsNoRoutedSource)
{
    EXPECT_EQ(RoutedSource(m_nowhere), 0U);
    const FailCalls sockets(SystemCall::OpenSocket, EMFILE);
    EXPECT_EQ(RoutedSource(m_address), 0U);
}

TEST_F(ConnectedSocket, ATwinHasTheSamePortAndTheSourceThatRoutingChooses)
{
    ASSERT_TRUE(Bind(m_socket.Get(), "127.0.0.9", m_source.Port()));
    ASSERT_TRUE(ConnectSocket(m_socket.Get(), m_address));
    const UniqueFd twin = ConnectedTwin(m_socket.Get(), m_address);
    ASSERT_TRUE(twin.IsValid());
    EXPECT_EQ(LocalPort(twin.Get()), LocalPort(m_socket.Get()));
    EXPECT_TRUE(IsConnectedTo(twin.Get(), m_address));
    EXPECT_EQ(SourceOf(twin.Get()), RoutedSource(m_address));
    EXPECT_TRUE(SendsWithoutAddress(twin.Get()));
    EXPECT_EQ(m_receiver.Next(), (Bytes { '1' }));
    EXPECT_EQ(m_receiver.SourcePort(), LocalPort(m_socket.Get()));
}

TEST_F(ConnectedSocket, ThereIsNoTwinWithoutASocketAPortOrAWay)
{
    ASSERT_TRUE(ConnectSocket(m_socket.Get(), m_address));
    EXPECT_FALSE(ConnectedTwin(m_socket.Get(), m_nowhere).IsValid());
    {
        const FailCalls sockets(SystemCall::OpenSocket, EMFILE);
        EXPECT_FALSE(ConnectedTwin(m_socket.Get(), m_address).IsValid());
    }
    const UniqueFd alone(socket(AF_INET, SOCK_DGRAM, 0)); // shares its port with nobody
    ASSERT_TRUE(ConnectSocket(alone.Get(), m_address));
    EXPECT_FALSE(ConnectedTwin(alone.Get(), m_address).IsValid());
}

} // namespace
