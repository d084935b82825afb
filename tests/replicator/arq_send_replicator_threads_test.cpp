#include <fcntl.h>
#include <poll.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/allocation_hooks.h"
#include "support/replicator_fixture.h"

namespace {

using namespace test_support;

// One step of each thread at a time: the replicator's own threads are stopped.
class ThreadStepsTest : public ReplicatorTest {
protected:
    ThreadStepsTest()
    {
        const CapturedOutput output;
        (void)BuildStopped();
    }

    ShortWaits m_waits;
};

TEST_F(ThreadStepsTest, ASampleTurnsTheByteCountsIntoBitRatesAndZeroesThem)
{
    auto& rx = const_cast<ReceiveStats&>(m_replicator->RxStats());
    auto& tx = const_cast<TransmitStats&>(m_replicator->TxStats());
    rx.m_nRxBytes = 125000;
    tx.m_nTxBytes = 250000;
    m_replicator->SampleBitrates(500000, 0xFFFFFFFFU - 499999U);
    EXPECT_EQ(rx.m_nRxBitrate, 1000000U);
    EXPECT_EQ(tx.m_nTxBitrate, 2000000U);
    EXPECT_EQ(rx.m_nRxBytes, 0U);
    EXPECT_EQ(tx.m_nTxBytes, 0U);
    m_replicator->SampleBitrates(1500000, 500000);
    EXPECT_EQ(rx.m_nRxBitrate, 0U);
    EXPECT_EQ(tx.m_nTxBitrate, 0U);
}

TEST_F(ThreadStepsTest, ASampleWithoutTimeInBetweenGivesZeroRates)
{
    auto& rx = const_cast<ReceiveStats&>(m_replicator->RxStats());
    rx.m_nRxBytes = 125000;
    rx.m_nRxBitrate = 5;
    m_replicator->SampleBitrates(77, 77);
    EXPECT_EQ(rx.m_nRxBitrate, 0U);
    EXPECT_EQ(rx.m_nRxBytes, 0U);
}

TEST_F(ThreadStepsTest, AStartWithoutListenThreadFailsAndDoesNotRun)
{
    CapturedOutput output;
    {
        const FailNthAllocation failing(1);
        EXPECT_FALSE(m_replicator->Start());
        EXPECT_TRUE(failing.Fired());
    }
    EXPECT_EQ(output.Err(), "ArqSendReplicator::Start: SocketGroup::Start() failed");
    OwnedPacket packet(RtpPacket(1));
    EXPECT_EQ(Send(packet), 1);
    EXPECT_EQ(m_replicator->RxStats().m_nRxPackets, 0U);
}

TEST_F(ThreadStepsTest, TheDebugDumpHasOneLineForEachWord)
{
    {
        const CapturedOutput output;
        EXPECT_EQ(m_replicator->AddStream("127.0.0.2", 0), 1);
    }
    m_replicator->m_impair.m_mode = 1;
    m_replicator->m_impair.m_dist.m_value = -2;
    m_replicator->m_impair.m_burst.m_value = 3;
    m_replicator->m_nDropPacket = 12;
    CapturedOutput output;
    m_replicator->DebugDump();
    EXPECT_EQ(output.Err(),
        "\nm_bRunning 0\nm_usSeqNum 0\nm_nNumStreams 1\nm_impair.m_mode 1\nm_impair.m_dist.m_value -2\n"
        "m_impair.m_burst.m_value 3\nm_nDropPacket 12\n");
}

// A socket group's thread is the first that Start makes.
TEST_F(ThreadStepsTest, AStartWithoutKeepAliveOrStatusThreadSaysWhyAndRunsOn)
{
    constexpr int KEEP_ALIVE = 2;
    constexpr int STATUS = 3;
    CapturedOutput output;
    {
        const FailCalls failing(SystemCall::CreateThread, EAGAIN, KEEP_ALIVE, STATUS);
        EXPECT_TRUE(m_replicator->Start());
    }
    OwnedPacket packet(RtpPacket(1));
    EXPECT_EQ(Send(packet), 1);
    EXPECT_EQ(m_replicator->RxStats().m_nRxPackets, 1U);
    m_replicator->Stop();
    // The listen thread has something to say meanwhile, too.
    for (const char* line : { "ArqSendReplicator::Start: Create KeepAlive Thread\n",
             "cannot start the keep-alive thread: Resource temporarily unavailable\n",
             "ArqSendReplicator::Start: Create Status Thread\n",
             "cannot start the status thread: Resource temporarily unavailable\n" })
        EXPECT_NE(output.Err().find(line), std::string::npos) << line;
}

TEST_F(ThreadStepsTest, AStartWhoseListenThreadTheSystemRefusesFailsAndMakesNoOther)
{
    CapturedOutput output;
    {
        const FailCalls failing(SystemCall::CreateThread, EAGAIN);
        EXPECT_FALSE(m_replicator->Start());
        EXPECT_EQ(failing.Calls(), 1);
    }
    EXPECT_EQ(output.Err(), "ArqSendReplicator::Start: SocketGroup::Start() failed");
}

// Tells when it is destroyed: the status thread has begun then and has not come to its first sample.
class ReportingEngine : public RecordingEngine {
public:
    explicit ReportingEngine(std::function<void()> atEnd) : m_atEnd(std::move(atEnd)) {}
    ~ReportingEngine() override { m_atEnd(); }

private:
    std::function<void()> m_atEnd;
};

TEST_F(ThreadStepsTest, TheStatusThreadForgetsWhatWasCountedBeforeItStarted)
{
    auto& rx = const_cast<ReceiveStats&>(m_replicator->RxStats());
    auto& tx = const_cast<TransmitStats&>(m_replicator->TxStats());
    std::atomic<bool> isOver { false };
    uint32_t rxBytes = 1;
    uint32_t txBytes = 1;
    const CapturedOutput output;
    ASSERT_EQ(m_replicator->AddStream("127.0.0.2", 0), 1);
    Stream(0).m_pEngine = std::make_unique<ReportingEngine>([&] {
        rxBytes = rx.m_nRxBytes;
        txBytes = tx.m_nTxBytes;
        isOver = true;
    });
    ASSERT_EQ(m_replicator->DeleteStream("127.0.0.2"), 1);
    rx.m_nRxBytes = 125000;
    tx.m_nTxBytes = 250000;
    ASSERT_TRUE(m_replicator->Start());
    ASSERT_TRUE(WaitFor([&] { return isOver.load(); }));
    EXPECT_EQ(rxBytes, 0U);
    EXPECT_EQ(txBytes, 0U);
    m_replicator->Stop();
}

// The running threads.

// Their sleeps are cut; what they wait for is still there.
class ReplicatorThreadsTest : public ReplicatorTest {
protected:
    ShortWaits m_waits;
};

using Times = std::vector<uint32_t>;

// What is left of `times` without the one sleep of a listen thread before it serves.
Times WithoutSettling(Times times)
{
    const auto settling = std::find(times.begin(), times.end(), 50U);
    if (settling != times.end())
        times.erase(settling);
    return times;
}

TEST_F(ReplicatorThreadsTest, StopWaits600MsForTheListenThreadAndThen200ForTheOthers)
{
    const CapturedOutput output;
    (void)Build();
    EXPECT_EQ(m_waits.SleepsMs(), Times());
    m_replicator->Stop();
    EXPECT_EQ(m_waits.SleepsMs(), (Times { 600, 200 }));
}

TEST_F(ReplicatorThreadsTest, TheStatusThreadSleepsASecondInSlicesOf100Ms)
{
    constexpr int FIRST_SAMPLES = 3;
    m_settings.arqRequestPort = m_settings.destPort; // without a keep-alive thread
    const CapturedOutput output;
    auto& rx = const_cast<ReceiveStats&>(Build().RxStats());
    for (int i = 0; i < FIRST_SAMPLES; ++i) {
        rx.m_nRxBitrate = 1;
        ASSERT_TRUE(WaitFor([&] { return rx.m_nRxBitrate == 0; }));
    }
    const Times times = WithoutSettling(m_waits.OthersSleepsMs());
    EXPECT_GE(times.size(), 10U * FIRST_SAMPLES);
    EXPECT_EQ(times, Times(times.size(), 100));
}

// Each look is due 100 ms after the one before. Here the sleeps are cut: the clock falls behind, so that each
// sleep is longer than the last one by what is left of 100 ms.
TEST_F(ReplicatorThreadsTest, TheKeepAliveThreadLooksAtOnePlaceEvery100Ms)
{
    constexpr int STATUS = 3; // is the third thread
    const CapturedOutput output;
    {
        const FailCalls failing(SystemCall::CreateThread, EAGAIN, STATUS, STATUS);
        (void)Build();
    }
    Times times;
    ASSERT_TRUE(WaitFor([&] {
        times = WithoutSettling(m_waits.OthersSleepsMs());
        return std::any_of(times.begin(), times.end(), [](uint32_t ms) { return ms > 200; });
    }));
    uint32_t last = 0;
    for (const uint32_t ms : times) {
        ASSERT_LE(ms, last + 100) << "after " << last;
        last = ms;
    }
}

// Counts what it is given and notes in which buffers it came.
class BufferNotingEngine : public RecordingEngine {
public:
    uint32_t ProcessBuffer(PacketBuffer* packet) override
    {
        m_buffers.push_back(packet->Data());
        ++m_nCount;
        return 1;
    }

    std::vector<const uint8_t*> m_buffers; // the listen thread's while that runs
    std::atomic<size_t> m_nCount { 0 };
};

TEST_F(ReplicatorThreadsTest, TheRequestListenerUsesABufferAgainAfter1024Datagrams)
{
    constexpr size_t BUFFERS = 1024;
    Receiver receiver("127.0.0.2");
    const CapturedOutput output;
    (void)Build();
    ASSERT_EQ(m_replicator->AddStream("127.0.0.2", 0), 1);
    auto owned = std::make_unique<BufferNotingEngine>();
    BufferNotingEngine& engine = *owned;
    Stream(0).m_pEngine = std::move(owned);
    ASSERT_EQ(m_replicator->AddStream("127.0.0.3", 0), 1); // shows the listen thread the new engine
    for (size_t sent = 1; sent <= 2 * BUFFERS; ++sent) {
        receiver.SendTo("127.0.0.1", m_requestLease.Port(), { 1 });
        ASSERT_TRUE(WaitFor([&] { return engine.m_nCount == sent; }));
    }
    m_replicator->Stop();
    const auto& buffers = engine.m_buffers;
    const auto secondRound = buffers.begin() + BUFFERS;
    EXPECT_EQ(std::set<const uint8_t*>(buffers.begin(), secondRound).size(), BUFFERS);
    EXPECT_TRUE(std::equal(buffers.begin(), secondRound, secondRound, buffers.end()));
}

TEST_F(ReplicatorThreadsTest, PingsAndRequestsArriveThroughTheSockets)
{
    Receiver receiver("127.0.0.2");
    CapturedOutput output;
    (void)Build();
    receiver.SendTo("127.0.0.1", m_pingLease.Port(), Tagged(7, {}));
    ASSERT_TRUE(WaitFor([&] { return List() == "127.0.0.2"; }));
    OwnedPacket packet(RtpPacket(5));
    EXPECT_EQ(Send(packet), 1);
    EXPECT_EQ(RtpSeq(receiver.Next()), 5);
    EXPECT_EQ(receiver.SourcePort(), m_pingLease.Port());
    receiver.SendTo("127.0.0.1", m_requestLease.Port(), Tagged(7, Request({ 5 })));
    EXPECT_EQ(PayloadType(receiver.Next()), RETRANSMIT_PAYLOAD_TYPE);
    // A ping on the request port is echoed, without its tag, to where the media go.
    receiver.SendTo("127.0.0.1", m_requestLease.Port(), Tagged(7, { 0, 0, 0xAD, 0xE2, 1, 2 }));
    EXPECT_EQ(receiver.Next(), (Bytes { 0, 0, 0xAD, 0xE2, 1, 2 }));
    EXPECT_EQ(receiver.SourcePort(), m_pingLease.Port());
    receiver.SendTo("127.0.0.1", m_pingLease.Port(), Concat({ Tag(STREAM_LEAVE_MAGIC, 7) }));
    EXPECT_TRUE(WaitFor([&] { return List().empty(); }));
    m_replicator->Stop(); // the listen thread may still hold the packet
}

TEST_F(ReplicatorThreadsTest, BitRatesFollowTheTrafficAndFallToZeroWithoutInput)
{
    m_settings.destAddress = "127.0.0.2";
    const CapturedOutput output;
    (void)Build();
    OwnedPacket packet(RtpPacket(5, 0, 1316));
    const auto rates = [&] {
        return std::pair(
            m_replicator->RxStats().m_nRxBitrate.Load(), m_replicator->TxStats().m_nTxBitrate.Load());
    };
    EXPECT_TRUE(WaitFor([&] {
        (void)Send(packet);
        return rates().first != 0 && rates().second != 0;
    }));
    EXPECT_TRUE(WaitFor([&] { return rates() == std::pair(0U, 0U); }));
}

// Waits in its destructor, which is where the status thread destroys what was removed.
class LingeringEngine : public RecordingEngine {
public:
    struct Watch {
        std::atomic<bool> isEntered { false };
        std::atomic<bool> isStopOver { false };
        std::atomic<bool> isLeft { false };
    };

    explicit LingeringEngine(Watch& watch) : m_watch(watch) {}
    ~LingeringEngine() override
    {
        constexpr int LINGER_MS = 300; // a Stop that does not wait is over in far less
        m_watch.isEntered = true;
        for (int ms = 0; ms < LINGER_MS && !m_watch.isStopOver; ++ms)
            (void)poll(nullptr, 0, 1);
        m_watch.isLeft = true;
    }

private:
    Watch& m_watch;
};

TEST_F(ReplicatorThreadsTest, StopReturnsOnlyWhenAThreadThatIsHeldUpHasGone)
{
    LingeringEngine::Watch watch;
    const CapturedOutput output;
    (void)Build();
    ASSERT_EQ(m_replicator->AddStream("127.0.0.2", 0), 1);
    Stream(0).m_pEngine = std::make_unique<LingeringEngine>(watch);
    ASSERT_EQ(m_replicator->DeleteStream("127.0.0.2"), 1);
    ASSERT_TRUE(WaitFor([&] { return watch.isEntered.load(); }));
    m_replicator->Stop();
    EXPECT_TRUE(watch.isLeft);
    watch.isStopOver = true;
    EXPECT_TRUE(WaitFor([&] { return watch.isLeft.load(); }));
}

TEST_F(ReplicatorThreadsTest, TheStatusThreadDestroysWhatWasRemoved)
{
    const CapturedOutput output;
    (void)Build();
    ASSERT_EQ(m_replicator->AddStream("127.0.0.2", 0), 1);
    const int socket = Stream(0).SocketNumber(0);
    ASSERT_EQ(m_replicator->DeleteStream("127.0.0.2"), 1);
    EXPECT_TRUE(WaitFor([&] { return fcntl(socket, F_GETFD) == -1; }));
    EXPECT_TRUE(WaitFor([&] { return m_replicator->Streams().Waiting() == 0; }));
}

TEST_F(ReplicatorThreadsTest, WhatStillWaitsIsDestroyedWithTheReplicator)
{
    const CapturedOutput output;
    (void)BuildStopped();
    ASSERT_EQ(m_replicator->AddStream("127.0.0.2", 0), 1);
    const int socket = Stream(0).SocketNumber(0);
    ASSERT_EQ(m_replicator->DeleteStream("127.0.0.2"), 1);
    ASSERT_EQ(m_replicator->Streams().Waiting(), 1);
    EXPECT_NE(fcntl(socket, F_GETFD), -1);
    m_replicator.reset();
    EXPECT_EQ(fcntl(socket, F_GETFD), -1);
}

TEST_F(ReplicatorThreadsTest, ASilentReceiverIsSuspendedByTheKeepAliveThread)
{
    Receiver receiver("127.0.0.2");
    CapturedOutput output;
    (void)Build();
    receiver.SendTo("127.0.0.1", m_pingLease.Port(), { 1 });
    ASSERT_TRUE(WaitFor([&] { return List() == "127.0.0.2"; }));
    EXPECT_TRUE(WaitFor([&] { return List().empty(); }));
    m_replicator.reset();
    EXPECT_EQ(CountOf(output.StampedErr(), "<time> Stream suspended for 127.0.0.2\n"), 1U);
    EXPECT_EQ(output.Err().find("Stream stopped"), std::string::npos);
}

} // namespace
