#include "replicator/socket_group.h"

#include <atomic>
#include <chrono>
#include <memory>

#include <gtest/gtest.h>

#include "replicator/captured_output.h"
#include "replicator/loopback.h"
#include "replicator/socket_listener.h"
#include "support/allocation_hooks.h"

namespace {

using test_support::CapturedOutput;
using test_support::PortLease;
using test_support::Receiver;
using test_support::WaitFor;
using Clock = std::chrono::steady_clock;

constexpr auto STOP_WAIT = std::chrono::milliseconds(600);

class CountingListener : public SocketListener {
public:
    CountingListener(uint16_t port, bool& ok) : SocketListener(SharedSocket(), port, ok, 4) {}

    void Init(bool& ok) override
    {
        ++m_inits;
        SocketListener::Init(ok);
    }
    int OnPacket(PacketBuffer* /*packet*/, in_addr_t /*addressNet*/, uint16_t /*portNet*/) override
    {
        ++m_packets;
        return 1;
    }

    std::atomic<int> m_inits { 0 };
    std::atomic<int> m_packets { 0 };
};

class SocketGroupTest : public testing::Test {
protected:
    bool m_ok = true;
    PortLease m_lease0;
    PortLease m_lease1;
    CountingListener m_listener0 { m_lease0.Port(), m_ok };
    CountingListener m_listener1 { m_lease1.Port(), m_ok };
    CapturedOutput m_output;
};

TEST_F(SocketGroupTest, StopOfAGroupThatNeverStartedReturnsFalseAtOnce)
{
    SocketGroup group;
    const auto before = Clock::now();
    EXPECT_FALSE(group.Stop());
    EXPECT_LT(Clock::now() - before, STOP_WAIT);
}

TEST_F(SocketGroupTest, StartReturnsFalseTheSecondTime)
{
    SocketGroup group;
    group.SetListener(&m_listener0, 0);
    EXPECT_TRUE(group.Start());
    EXPECT_FALSE(group.Start());
    EXPECT_TRUE(group.Stop());
    EXPECT_FALSE(group.Stop());
    EXPECT_EQ(m_listener0.m_inits, 1);
}

TEST_F(SocketGroupTest, BothListenersAreServedUntilStop)
{
    SocketGroup group;
    group.SetListener(&m_listener0, 0);
    group.SetListener(&m_listener1, 1);
    ASSERT_TRUE(group.Start());
    ASSERT_TRUE(WaitFor([&] { return test_support::IsBoundOnAllAddresses(m_lease1.Port()); }));
    Receiver sender("127.0.0.2");
    sender.SendTo("127.0.0.1", m_lease0.Port(), { 1 });
    sender.SendTo("127.0.0.1", m_lease1.Port(), { 1 });
    sender.SendTo("127.0.0.1", m_lease1.Port(), { 1 });
    EXPECT_TRUE(WaitFor([&] { return m_listener0.m_packets == 1 && m_listener1.m_packets == 2; }));
    const auto before = Clock::now();
    EXPECT_TRUE(group.Stop());
    EXPECT_GE(Clock::now() - before, STOP_WAIT);
    sender.SendTo("127.0.0.1", m_lease0.Port(), { 1 });
    EXPECT_EQ(m_listener0.m_packets, 1);
}

TEST_F(SocketGroupTest, APositionMayBeEmpty)
{
    SocketGroup group;
    group.SetListener(&m_listener1, 1);
    ASSERT_TRUE(group.Start());
    ASSERT_TRUE(WaitFor([&] { return test_support::IsBoundOnAllAddresses(m_lease1.Port()); }));
    Receiver("127.0.0.2").SendTo("127.0.0.1", m_lease1.Port(), { 1 });
    EXPECT_TRUE(WaitFor([&] { return m_listener1.m_packets == 1; }));
    EXPECT_TRUE(group.Stop());
}

TEST_F(SocketGroupTest, OtherPositionsAreIgnored)
{
    SocketGroup group;
    group.SetListener(&m_listener0, -1);
    group.SetListener(&m_listener1, 2);
    ASSERT_TRUE(group.Start());
    EXPECT_TRUE(WaitFor([&] { return group.Start(); })) << "the thread should have ended by itself";
    (void)group.Stop();
    EXPECT_EQ(m_listener0.m_inits, 0);
    EXPECT_EQ(m_listener1.m_inits, 0);
}

TEST_F(SocketGroupTest, WithoutListenersTheThreadEndsByItself)
{
    SocketGroup group;
    ASSERT_TRUE(group.Start());
    EXPECT_TRUE(WaitFor([&] { return group.Start(); }));
    (void)group.Stop();
}

TEST_F(SocketGroupTest, AListenerThatCannotBeMadeUsableEndsTheThreadWithoutServingTheOther)
{
    m_lease0.Release();
    const UniqueFd other(socket(AF_INET, SOCK_DGRAM, 0));
    ASSERT_TRUE(test_support::Bind(other.Get(), "127.0.0.2", m_lease0.Port()));
    SocketGroup group;
    group.SetListener(&m_listener0, 0);
    group.SetListener(&m_listener1, 1);
    ASSERT_TRUE(group.Start());
    ASSERT_TRUE(WaitFor([&] { return m_listener0.m_inits == 1; }));
    EXPECT_FALSE(group.Start()) << "it counts as running until it is stopped";
    EXPECT_TRUE(group.Stop());
    EXPECT_EQ(m_output.Err(),
        "SocketListener: bind failed on port " + std::to_string(m_lease0.Port())
            + "\nSocketGroupListenThread::Listen: Init(0) failed\n");
    EXPECT_EQ(m_listener1.m_inits, 0);
    EXPECT_FALSE(test_support::IsBoundOnAllAddresses(m_lease1.Port()));
}

TEST_F(SocketGroupTest, TheMessageNamesThePositionThatFailed)
{
    m_lease1.Release();
    const UniqueFd other(socket(AF_INET, SOCK_DGRAM, 0));
    ASSERT_TRUE(test_support::Bind(other.Get(), "127.0.0.2", m_lease1.Port()));
    SocketGroup group;
    group.SetListener(&m_listener0, 0);
    group.SetListener(&m_listener1, 1);
    ASSERT_TRUE(group.Start());
    EXPECT_TRUE(group.Stop());
    EXPECT_NE(m_output.Err().find("SocketGroupListenThread::Listen: Init(1) failed\n"), std::string::npos);
}

TEST_F(SocketGroupTest, StartReturnsFalseWithoutAThreadAndTheGroupDoesNotRun)
{
    SocketGroup group;
    {
        const test_support::FailNthAllocation failing(1);
        EXPECT_FALSE(group.Start());
        EXPECT_TRUE(failing.Fired());
    }
    EXPECT_FALSE(group.Stop());
}

TEST_F(SocketGroupTest, DestroyingARunningGroupStopsItsThread)
{
    {
        SocketGroup group;
        group.SetListener(&m_listener0, 0);
        ASSERT_TRUE(group.Start());
        ASSERT_TRUE(WaitFor([&] { return test_support::IsBoundOnAllAddresses(m_lease0.Port()); }));
    }
    Receiver("127.0.0.2").SendTo("127.0.0.1", m_lease0.Port(), { 1 });
    EXPECT_TRUE(test_support::WaitFor([&] {
        pollfd wanted { m_listener0.Socket(), POLLIN, 0 };
        return poll(&wanted, 1, 0) == 1;
    })) << "nobody reads the socket any more";
    EXPECT_EQ(m_listener0.m_packets, 0);
}

} // namespace
