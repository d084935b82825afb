#include "replicator/socket_group.h"

#include <fcntl.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "pacing/ms_clock.h"
#include "replicator/socket_listener.h"
#include "support/allocation_hooks.h"
#include "support/captured_output.h"
#include "support/high_descriptor.h"
#include "support/loopback.h"
#include "support/system_hooks.h"

namespace {

using namespace test_support;
using Times = std::vector<uint32_t>;

class CountingListener : public SocketListener {
public:
    CountingListener(uint16_t port, bool& ok, SharedSocket socket = SharedSocket(), uint32_t poolSize = 4)
        : SocketListener(std::move(socket), port, ok, poolSize)
    {
    }

    void Init(bool& ok) override
    {
        ++m_inits;
        SocketListener::Init(ok);
    }
    int OnPacket(PacketBuffer* /*packet*/, in_addr_t /*addressNet*/, uint16_t /*portNet*/) override
    {
        ++m_packets;
        if (m_onPacket)
            m_onPacket();
        return 1;
    }
    bool HasUnread() const
    {
        pollfd wanted { Socket(), POLLIN, 0 };
        return poll(&wanted, 1, 0) == 1;
    }

    std::atomic<int> m_inits { 0 };
    std::atomic<int> m_packets { 0 };
    std::function<void()> m_onPacket;
};

class SocketGroupTest : public testing::Test {
protected:
    void Send(const PortLease& to) { m_sender.SendTo("127.0.0.1", to.Port(), { 1 }); }
    // A socket that keeps the port from being bound on all addresses.
    static UniqueFd Occupy(PortLease& lease)
    {
        lease.Release();
        UniqueFd other(socket(AF_INET, SOCK_DGRAM, 0));
        EXPECT_TRUE(Bind(other.Get(), "127.0.0.2", lease.Port()));
        return other;
    }

    ShortWaits m_waits { ShortWaits::OwnPolls::Cut };
    bool m_ok = true;
    PortLease m_lease0;
    PortLease m_lease1;
    CountingListener m_listener0 { m_lease0.Port(), m_ok };
    CountingListener m_listener1 { m_lease1.Port(), m_ok };
    CapturedOutput m_output;
    Receiver m_sender { "127.0.0.2" };
};

// ---- Making the listeners usable

class InitListenersTest : public SocketGroupTest {};

TEST_F(InitListenersTest, BothAreMadeUsable)
{
    EXPECT_TRUE(InitListeners({ &m_listener0, &m_listener1 }));
    EXPECT_TRUE(IsBoundOnAllAddresses(m_lease0.Port()));
    EXPECT_TRUE(IsBoundOnAllAddresses(m_lease1.Port()));
}

TEST_F(InitListenersTest, APositionMayBeEmpty)
{
    EXPECT_TRUE(InitListeners({ nullptr, &m_listener1 }));
    EXPECT_TRUE(InitListeners({ &m_listener0, nullptr }));
    EXPECT_TRUE(InitListeners({}));
}

TEST_F(InitListenersTest, OneThatCannotBeMadeUsableIsNamedAndTheNextLeftAlone)
{
    const UniqueFd other = Occupy(m_lease0);
    EXPECT_FALSE(InitListeners({ &m_listener0, &m_listener1 }));
    EXPECT_EQ(m_output.Err(),
        "SocketListener: bind failed on port " + std::to_string(m_lease0.Port())
            + "\nSocketGroupListenThread::Listen: Init(0) failed\n");
    EXPECT_EQ(m_listener1.m_inits, 0);
}

TEST_F(InitListenersTest, TheMessageNamesThePositionThatFailed)
{
    const UniqueFd other = Occupy(m_lease1);
    EXPECT_FALSE(InitListeners({ &m_listener0, &m_listener1 }));
    EXPECT_NE(m_output.Err().find("SocketGroupListenThread::Listen: Init(1) failed\n"), std::string::npos);
}

TEST_F(InitListenersTest, WithoutASocketTheListenerFails)
{
    const FailCalls sockets(SystemCall::OpenSocket, EMFILE);
    EXPECT_FALSE(InitListeners({ &m_listener0, &m_listener1 }));
    EXPECT_EQ(m_output.Err(), "SocketGroupListenThread::Listen: Init(0) failed\n");
    EXPECT_EQ(m_listener0.Socket(), -1);
}

// ---- Serving them

class ServeListenersTest : public SocketGroupTest {};

TEST_F(ServeListenersTest, ListenersThatHaveDatagramsTakeOneInTurn)
{
    ASSERT_TRUE(InitListeners({ &m_listener0, &m_listener1 }));
    std::string order;
    m_listener0.m_onPacket = [&] { order += '0'; };
    m_listener1.m_onPacket = [&] { order += '1'; };
    for (int i = 0; i < 3; ++i)
        Send(m_lease0);
    for (int i = 0; i < 5; ++i)
        Send(m_lease1);
    while (order.size() < 8) // once where the machine is not busy
        ServeListeners({ &m_listener0, &m_listener1 });
    EXPECT_EQ(order, "01010111");
}

TEST_F(ServeListenersTest, AfterOneWaitAListenerTakes32DatagramsAtMost)
{
    ASSERT_TRUE(InitListeners({ &m_listener0, &m_listener1 }));
    for (int i = 0; i < 40; ++i)
        Send(m_lease0);
    ServeListeners({ &m_listener0, &m_listener1 });
    EXPECT_LE(m_listener0.m_packets, 32);
    while (m_listener0.m_packets < 40)
        ServeListeners({ &m_listener0, &m_listener1 });
}

TEST_F(ServeListenersTest, WhatComesWhileAnAnswerTakesLongIsNotLeftUntilAllOthersAreAnswered)
{
    ASSERT_TRUE(InitListeners({ &m_listener0, &m_listener1 }));
    std::string order;
    m_listener0.m_onPacket = [&] {
        if (order.empty())
            Send(m_lease1);
        order += '0';
        const uint32_t beginMs = GetSteadyMs();
        while (GetSteadyMs() - beginMs < 50) {}
    };
    m_listener1.m_onPacket = [&] { order += '1'; };
    for (int i = 0; i < 3; ++i)
        Send(m_lease0);
    while (order.size() < 4)
        ServeListeners({ &m_listener0, &m_listener1 });
    EXPECT_EQ(order, "0010");
}

TEST_F(ServeListenersTest, WhatWasReadBeforeALongAnswerIsPassedOnWithoutAWait)
{
    CountingListener wide(m_lease0.Port(), m_ok, SharedSocket(), 64);
    ASSERT_TRUE(InitListeners({ &wide, &m_listener1 }));
    wide.m_onPacket = [] {
        const uint32_t beginMs = GetSteadyMs();
        while (GetSteadyMs() - beginMs < 50) {}
    };
    for (int i = 0; i < 3; ++i)
        Send(m_lease0);
    for (int served = 1; served <= 3; ++served) {
        ServeListeners({ &wide, &m_listener1 });
        EXPECT_EQ(wide.m_packets, served);
    }
    EXPECT_EQ(m_waits.PollsMs(), (std::set<int> { 0, 250 }));
}

TEST_F(ServeListenersTest, WhatWasReadIsPassedOnWhereALookFails)
{
    CountingListener wide(m_lease0.Port(), m_ok, SharedSocket(), 64);
    ASSERT_TRUE(InitListeners({ &wide, nullptr }));
    wide.m_onPacket = [] {
        const uint32_t beginMs = GetSteadyMs();
        while (GetSteadyMs() - beginMs < 50) {}
    };
    for (int i = 0; i < 2; ++i)
        Send(m_lease0);
    ServeListeners({ &wide, nullptr });
    const FailCalls polls(SystemCall::Poll, ENOMEM);
    ServeListeners({ &wide, nullptr });
    EXPECT_EQ(polls.Count(), 1);
    EXPECT_EQ(wide.m_packets, 2);
    EXPECT_TRUE(m_waits.SleepsMs().empty());
}

// A wait, a reading that brings fewer than asked for, and no second one.
TEST_F(ServeListenersTest, ASocketThatIsNotFullIsReadOnceAfterAWait)
{
    CountingListener wide(m_lease0.Port(), m_ok, SharedSocket(), 64);
    ASSERT_TRUE(InitListeners({ &wide, &m_listener1 }));
    for (int i = 0; i < 15; ++i)
        Send(m_lease0);
    const FailCalls reads(SystemCall::ReceiveTogether, 0, 0, 0);
    while (wide.m_packets < 15) // once where the machine is not busy
        ServeListeners({ &wide, &m_listener1 });
    EXPECT_EQ(reads.Calls(), 1) << "the other one has nothing and is not read";
}

TEST_F(ServeListenersTest, AFullReadingIsFollowedByTheNextWithoutAWait)
{
    CountingListener wide(m_lease0.Port(), m_ok, SharedSocket(), 64);
    ASSERT_TRUE(InitListeners({ &wide, nullptr }));
    for (int i = 0; i < 20; ++i)
        Send(m_lease0);
    const FailCalls reads(SystemCall::ReceiveTogether, 0, 0, 0);
    const FailCalls polls(SystemCall::Poll, EINTR, 2, 100); // only the first one finds anything
    for (int round = 0; round < 20 && wide.m_packets < 20; ++round)
        ServeListeners({ &wide, nullptr });
    EXPECT_EQ(wide.m_packets, 20);
    EXPECT_EQ(reads.Calls(), 2);
}

TEST_F(ServeListenersTest, AFloodAtOneListenerLeavesTheOtherItsTurnAfter32Datagrams)
{
    CountingListener wide(m_lease0.Port(), m_ok, SharedSocket(), 64);
    ASSERT_TRUE(InitListeners({ &wide, &m_listener1 }));
    wide.m_onPacket = [&] {
        Send(m_lease0); // there is always more
        if (wide.m_packets == 1)
            Send(m_lease1);
    };
    m_listener1.m_onPacket = [&] { EXPECT_LE(wide.m_packets, 33); };
    for (int i = 0; i < 32; ++i)
        Send(m_lease0);
    ServeListeners({ &wide, &m_listener1 });
    EXPECT_LE(wide.m_packets, 32);
    ServeListeners({ &wide, &m_listener1 });
    EXPECT_EQ(m_listener1.m_packets, 1);
}

TEST_F(ServeListenersTest, APositionMayBeEmpty)
{
    ASSERT_TRUE(InitListeners({ nullptr, &m_listener1 }));
    Send(m_lease1);
    ServeListeners({ nullptr, &m_listener1 });
    EXPECT_EQ(m_listener1.m_packets, 1);
}

TEST_F(ServeListenersTest, WithoutADatagramItWaits250Ms)
{
    ASSERT_TRUE(InitListeners({ &m_listener0, &m_listener1 }));
    ServeListeners({ &m_listener0, &m_listener1 });
    EXPECT_EQ(m_waits.PollsMs(), (std::set<int> { 250 }));
    EXPECT_EQ(m_listener0.m_packets + m_listener1.m_packets, 0);
}

TEST_F(ServeListenersTest, ADescriptorFrom1024OnIsServedLikeAnyOther)
{
    const UniqueFd low(socket(AF_INET, SOCK_DGRAM, 0));
    CountingListener high(m_lease0.Port(), m_ok, SharedSocket(DuplicateHigh(low.Get()).Release()));
    ASSERT_TRUE(InitListeners({ &high, &m_listener1 }));
    Send(m_lease0);
    Send(m_lease1);
    ServeListeners({ &high, &m_listener1 });
    EXPECT_EQ(high.m_packets, 1);
    EXPECT_EQ(m_listener1.m_packets, 1);
}

TEST_F(ServeListenersTest, AClosedDescriptorNeitherEndsTheWaitNorKeepsTheOtherFromBeingServed)
{
    constexpr int UNUSED = FIRST_HIGH_DESCRIPTOR / 2; // nobody opens so many that it is taken meanwhile
    CountingListener closed(m_lease0.Port(), m_ok, SharedSocket(fcntl(m_sender.Fd(), F_DUPFD, UNUSED)));
    ASSERT_EQ(close(closed.Socket()), 0);
    ASSERT_TRUE(InitListeners({ nullptr, &m_listener1 }));
    const SocketGroup::Listeners both { &closed, &m_listener1 };
    Send(m_lease1);
    ServeListeners(both);
    EXPECT_EQ(m_listener1.m_packets, 1);
    EXPECT_EQ(closed.m_packets, 0);
    constexpr int WAITS = 20; // each cut to a millisecond
    const auto before = std::chrono::steady_clock::now();
    for (int i = 0; i < WAITS; ++i)
        ServeListeners(both);
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(WAITS));
}

// What is pending on a socket that is connected, as one at a port that is closed again can be.
TEST_F(ServeListenersTest, AnErrorOnASocketIsReadLikeADatagramAndPassedToNobody)
{
    ASSERT_TRUE(InitListeners({ &m_listener0, nullptr }));
    const int fd = m_listener0.Socket();
    const sockaddr_in nobody = SocketAddress("127.0.0.1", m_lease1.Port());
    ASSERT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&nobody), sizeof(nobody)), 0);
    ASSERT_EQ(send(fd, "", 0, 0), 0);
    pollfd wanted { fd, POLLIN, 0 };
    ASSERT_EQ(poll(&wanted, 1, LONGEST_WAIT_MS), 1);
    ASSERT_EQ(wanted.revents, POLLERR);
    ServeListeners({ &m_listener0, nullptr });
    EXPECT_EQ(poll(&wanted, 1, 0), 0) << "it would end every wait at once";
    EXPECT_EQ(m_listener0.m_packets, 0);
}

TEST_F(ServeListenersTest, AWaitThatFailsIsSleptThroughInstead)
{
    ASSERT_TRUE(InitListeners({ &m_listener0, &m_listener1 }));
    Send(m_lease0);
    {
        const FailCalls polls(SystemCall::Poll, ENOMEM);
        ServeListeners({ &m_listener0, &m_listener1 });
        EXPECT_EQ(polls.Count(), 1);
        EXPECT_EQ(m_listener0.m_packets, 0);
    }
    EXPECT_EQ(m_waits.SleepsMs(), (Times { 250 }));
    ServeListeners({ &m_listener0, &m_listener1 });
    EXPECT_EQ(m_listener0.m_packets, 1);
}

TEST_F(ServeListenersTest, AWaitThatASignalInterruptsHoldsNobodyUp)
{
    ASSERT_TRUE(InitListeners({ &m_listener0, &m_listener1 }));
    Send(m_lease0);
    {
        const FailCalls polls(SystemCall::Poll, EINTR);
        ServeListeners({ &m_listener0, &m_listener1 });
        EXPECT_EQ(polls.Count(), 1);
        EXPECT_EQ(m_listener0.m_packets, 0);
    }
    EXPECT_TRUE(m_waits.SleepsMs().empty());
    ServeListeners({ &m_listener0, &m_listener1 });
    EXPECT_EQ(m_listener0.m_packets, 1);
}

// ---- The listen thread

TEST_F(SocketGroupTest, BothListenersAreServedUntilStop)
{
    SocketGroup group;
    group.SetListener(&m_listener0, 0);
    group.SetListener(&m_listener1, 1);
    ASSERT_TRUE(group.Start());
    ASSERT_TRUE(WaitFor([&] { return IsBoundOnAllAddresses(m_lease1.Port()); }));
    Send(m_lease0);
    Send(m_lease1);
    Send(m_lease1);
    EXPECT_TRUE(WaitFor([&] { return m_listener0.m_packets == 1 && m_listener1.m_packets == 2; }));
    EXPECT_TRUE(group.Stop());
    Send(m_lease0);
    EXPECT_TRUE(WaitFor([&] { return m_listener0.HasUnread(); })) << "nobody reads the socket any more";
    EXPECT_EQ(m_listener0.m_packets, 1);
}

TEST_F(SocketGroupTest, DestroyingARunningGroupStopsItsThread)
{
    {
        SocketGroup group;
        group.SetListener(&m_listener0, 0);
        ASSERT_TRUE(group.Start());
        ASSERT_TRUE(WaitFor([&] { return IsBoundOnAllAddresses(m_lease0.Port()); }));
    }
    Send(m_lease0);
    EXPECT_TRUE(WaitFor([&] { return m_listener0.HasUnread(); })) << "nobody reads the socket any more";
    EXPECT_EQ(m_listener0.m_packets, 0);
}

TEST_F(SocketGroupTest, ItsThreadSettlesFor50MsAndStopTakes600)
{
    SocketGroup group;
    group.SetListener(&m_listener0, 0);
    ASSERT_TRUE(group.Start());
    EXPECT_TRUE(WaitFor([&] { return m_waits.PollsMs() == std::set<int> { 250 }; }));
    EXPECT_EQ(m_waits.AnySleepsMs(), (std::set<uint32_t> { 50 }));
    EXPECT_TRUE(group.Stop());
    EXPECT_EQ(m_waits.SleepsMs(), (Times { 600 }));
}

// However long a listener takes with its datagram, longer than Stop sleeps too.
TEST_F(SocketGroupTest, StopReturnsOnlyWhenItsThreadHasLeftTheListener)
{
    std::atomic<bool> hasLeft { false };
    m_listener0.m_onPacket = [&] {
        EXPECT_TRUE(WaitFor([&] { return m_waits.AnySleepsMs().count(600) == 1; }));
        for (int i = 0; i < 30; ++i)
            (void)poll(nullptr, 0, 1);
        hasLeft = true;
    };
    SocketGroup group;
    group.SetListener(&m_listener0, 0);
    ASSERT_TRUE(group.Start());
    ASSERT_TRUE(WaitFor([&] { return IsBoundOnAllAddresses(m_lease0.Port()); }));
    Send(m_lease0);
    ASSERT_TRUE(WaitFor([&] { return m_listener0.m_packets == 1; }));
    EXPECT_TRUE(group.Stop());
    EXPECT_TRUE(hasLeft);
}

TEST_F(SocketGroupTest, StopOfAGroupThatNeverStartedReturnsFalseAtOnce)
{
    SocketGroup group;
    EXPECT_FALSE(group.Stop());
    EXPECT_TRUE(m_waits.SleepsMs(0).empty());
}

TEST_F(SocketGroupTest, StartReturnsFalseTheSecondTimeAndStopToo)
{
    SocketGroup group;
    group.SetListener(&m_listener0, 0);
    EXPECT_TRUE(group.Start());
    EXPECT_FALSE(group.Start());
    EXPECT_TRUE(group.Stop());
    EXPECT_FALSE(group.Stop());
    EXPECT_EQ(m_listener0.m_inits, 1);
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

TEST_F(SocketGroupTest, AListenerThatCannotBeMadeUsableEndsTheThreadButTheGroupCountsAsRunning)
{
    const UniqueFd other = Occupy(m_lease0);
    SocketGroup group;
    group.SetListener(&m_listener0, 0);
    ASSERT_TRUE(group.Start());
    ASSERT_TRUE(WaitFor([&] { return m_listener0.m_inits == 1; }));
    EXPECT_FALSE(group.Start());
    EXPECT_TRUE(group.Stop());
    EXPECT_TRUE(m_waits.PollsMs().empty()) << "nothing was served";
}

TEST_F(SocketGroupTest, WithoutAThreadItDoesNotRun)
{
    SocketGroup group;
    {
        const FailCalls threads(SystemCall::CreateThread, EAGAIN);
        EXPECT_FALSE(group.Start());
        EXPECT_EQ(threads.Count(), 1);
    }
    EXPECT_FALSE(group.Stop());
    EXPECT_TRUE(m_waits.SleepsMs(0).empty());
}

TEST_F(SocketGroupTest, WithoutMemoryForAThreadItDoesNotRun)
{
    SocketGroup group;
    {
        const FailNthAllocation failing(1);
        EXPECT_FALSE(group.Start());
        EXPECT_TRUE(failing.Fired());
    }
    EXPECT_FALSE(group.Stop());
}

} // namespace
