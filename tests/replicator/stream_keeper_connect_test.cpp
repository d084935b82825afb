// Which streams' sockets are connected: those that nobody else sends from and nobody reads.
#include "replicator/stream_keeper.h"

#include <cerrno>
#include <memory>
#include <optional>
#include <utility>

#include <gtest/gtest.h>

#include "support/stream_keeper_fixture.h"

namespace {

using namespace test_support;

class StreamKeeperConnect : public StreamKeeperTest {
protected:
    using StreamKeeperTest::StreamKeeperTest;

    bool IsConnected(int32_t index) const { return Stream(index).Target().isConnected; }

    std::optional<FailCalls> m_connects { std::in_place, SystemCall::Connect, 0, 0, 0 }; // counts them
};

class StreamKeeperConnectShared : public StreamKeeperConnect {
protected:
    StreamKeeperConnectShared() : StreamKeeperConnect(Ports::Shared) {}
};

TEST_F(StreamKeeperConnect, AConfiguredStreamsSocketIs)
{
    Add("127.0.0.2");
    Add("127.0.0.1");
    EXPECT_TRUE(IsConnected(0));
    EXPECT_TRUE(IsConnected(1));
}

TEST_F(StreamKeeperConnect, ALearntStreamsIsNotNorOneOnLoopback)
{
    PingQuietly("127.0.0.2", PORT_A);
    PingQuietly("127.0.0.1", PORT_A);
    EXPECT_EQ(Count(), 2);
    EXPECT_FALSE(IsConnected(0));
    EXPECT_FALSE(IsConnected(1));
    for (int32_t i = 0; i < 2; ++i)
        m_keeper.VisitPlace(i, 0);
    EXPECT_EQ(m_connects->Calls(), 0);
}

// It would take requests away from the listener on that port.
TEST_F(StreamKeeperConnectShared, WithEqualPortsNoneIs)
{
    Add("127.0.0.2");
    Add("127.0.0.3");
    EXPECT_FALSE(IsConnected(0));
    EXPECT_FALSE(IsConnected(1));
    m_keeper.VisitPlace(0, 0);
    EXPECT_EQ(m_connects->Calls(), 0);
}

TEST_F(StreamKeeperConnect, OneThatIsBoundToInterfacesIsNot)
{
    const CapturedOutput output;
    EXPECT_EQ(m_keeper.AddStream("127.0.0.2", 1), 1);
    EXPECT_EQ(m_keeper.AddStream("127.0.0.3", 2), 1);
    EXPECT_EQ(m_connects->Calls(), 0);
    EXPECT_FALSE(IsConnected(0));
    EXPECT_FALSE(IsConnected(1));
}

TEST_F(StreamKeeperConnect, TheMulticastStreamsIsNot)
{
    const CapturedOutput output;
    const std::unique_ptr<MyArqSendCB> group = m_keeper.CreateMulticastStream("239.1.2.3");
    ASSERT_TRUE(group);
    EXPECT_EQ(m_connects->Calls(), 0);
    EXPECT_FALSE(group->Target().isConnected);
}

TEST_F(StreamKeeperConnect, ALookAtAStreamConnectsItOnceThereIsAWay)
{
    PingQuietly("127.0.0.7", PORT_A); // takes place 0
    {
        m_connects.reset();
        const FailCalls connects(SystemCall::Connect, ENETUNREACH);
        Add("127.0.0.2");
    }
    EXPECT_FALSE(IsConnected(1));
    m_keeper.VisitPlace(0, 0);
    EXPECT_FALSE(IsConnected(1));
    m_keeper.VisitPlace(1, 0);
    EXPECT_TRUE(IsConnected(1));
}

TEST_F(StreamKeeperConnect, APingDoesNotMoveAConfiguredStreamOffItsSocket)
{
    Add("127.0.0.2");
    const uint16_t port = LocalPort(Stream(0).SocketNumber(0));
    PingQuietly("127.0.0.2", PORT_A);
    PingQuietly("127.0.0.2", PORT_B);
    EXPECT_TRUE(IsConnected(0));
    EXPECT_EQ(LocalPort(Stream(0).SocketNumber(0)), port);
}

} // namespace
