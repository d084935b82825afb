#include "main/proxy_run.h"

#include <dlfcn.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <functional>
#include <future>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "pacing/ms_clock.h"
#include "support/allocation_hooks.h"

namespace {

using namespace test_support;

constexpr uint32_t LOWER_HEADER_BYTES = 42;

// ---- What the run context shows

TEST_F(ProxyRunTest, InputBytesCountEachDatagramWithItsLowerHeadersAndOnlyTheFirstSenderIsRecorded)
{
    Receiver second("127.0.0.4");
    std::future<int> run = Start(std::vector<std::string> {});
    EXPECT_EQ(m_context->inputBytes, 0U);
    uint32_t expected = 0;
    for (const uint32_t length : { 1316U, 12U, 1U }) {
        SendInput(Payload(length));
        second.SendTo("127.0.0.1", m_inputLease.Port(), Payload(length + 1));
        expected += length + LOWER_HEADER_BYTES + length + 1 + LOWER_HEADER_BYTES;
        EXPECT_TRUE(WaitFor([&] { return m_context->inputBytes == expected; })) << m_context->inputBytes;
    }
    End(run);
    EXPECT_STREQ(m_context->sourceAddress, "127.0.0.3");
}

TEST_F(ProxyRunTest, TheStartTimeInMicrosecondsIsKeptInEveryModeAndInSecondsWithUdpInputOnly)
{
    for (const bool isUdpInput : { false, true }) {
        const time_t before = time(nullptr);
        const int64_t beforeUs = GetTimeUs();
        std::future<int> run
            = Start(isUdpInput ? std::vector<std::string> { "-u" } : std::vector<std::string> {});
        End(run);
        EXPECT_GE(m_context->startTimeUs, beforeUs);
        EXPECT_LE(m_context->startTimeUs, GetTimeUs());
        if (isUdpInput) {
            EXPECT_GE(m_context->startTime, before);
            EXPECT_LE(m_context->startTime, time(nullptr));
        } else {
            EXPECT_EQ(m_context->startTime, 0);
        }
    }
}

// ---- What cannot be started

TEST_F(ProxyRunTest, WithoutASocketForTheInstanceLockTheRunEndsWithStatus1)
{
    Prepare({});
    std::future<int> run = RunOnThread([](Proxy& proxy) {
        const FailCalls sockets(SystemCall::OpenSocket, EMFILE);
        return proxy.Run();
    });
    EXPECT_EQ(run.get(), 1);
    EXPECT_EQ(
        m_output.Err(), "creating socket: " + std::string(strerror(EMFILE)) + "\nProcess already running!\n");
}

// The input thread is the last but one that a run without pacing starts, the control thread the last.
class ProxyThreadsTest : public ProxyRunTest {
protected:
    ProxyThreadsTest()
    {
        Prepare({});
        std::future<int> run = Start([&](Proxy& proxy) {
            const FailCalls none(SystemCall::CreateThread, 0, 0, 0);
            const int status = proxy.Run();
            m_threads = none.Calls();
            return status;
        });
        End(run);
        Prepare({});
    }

    // Runs the prepared proxy without the thread that is `beforeLast` before its last.
    std::future<int> RunWithout(int beforeLast, std::function<void()> onFailure = {})
    {
        return RunOnThread([n = m_threads - beforeLast, onFailure](Proxy& proxy) {
            FailCalls threads(SystemCall::CreateThread, EAGAIN, n, n);
            threads.OnFailure(onFailure);
            return proxy.Run();
        });
    }

    const std::string m_reason = ": " + std::string(strerror(EAGAIN)) + "\n";
    int m_threads = 0;
};

// Without that thread nothing wakes main, so the run is to end before main waits; the control thread is started
// then all the same.
TEST_F(ProxyThreadsTest, WithoutAnInputThreadTheRunSaysSoAndStartsTheControlThread)
{
    std::future<int> run = RunWithout(1, [this] { m_context->running = 0; });
    EXPECT_EQ(run.get(), 0);
    const std::string& text = m_output.Err();
    const size_t failure = text.find("cannot start the input thread" + m_reason);
    EXPECT_NE(failure, std::string::npos);
    EXPECT_NE(text.find("process_request_thread: exiting\n", failure), std::string::npos);
    EXPECT_EQ(text.find("cannot start the control thread"), std::string::npos);
    EXPECT_EQ(CountOf(m_output.Out(), "Listening on port " + Text(m_inputLease)), 1U) << "the run before";
}

TEST_F(ProxyThreadsTest, WithoutAControlThreadTheRunSaysSoAndStillDelivers)
{
    std::future<int> run = RunWithout(0);
    EXPECT_TRUE(WaitFor([this] { return IsInputUp(); }));
    Deliver(1);
    EXPECT_FALSE(IsControlUp());
    End(run);
    EXPECT_EQ(CountOf(m_output.Err(), "cannot start the control thread" + m_reason), 1U);
    EXPECT_EQ(m_output.Err().find("cannot start the input thread"), std::string::npos);
}

// ---- The order of the end

// The pacer's end sleeps two of its periods, the replicator's what its threads need: that the ticks end first is
// seen in the order of the sleeps.
TEST_F(ProxyRunTest, ThePacerEndsBeforeTheReplicatorThatItSendsTo)
{
    std::vector<uint32_t> sleeps;
    Prepare({ "-X", "10000000" });
    std::future<int> run = Start([&](Proxy& proxy) {
        const int status = proxy.Run();
        sleeps = m_waits.SleepsMs();
        return status;
    });
    End(run);
    ASSERT_FALSE(sleeps.empty());
    EXPECT_EQ(sleeps.front(), 20U);
    EXPECT_EQ(std::count(sleeps.begin(), sleeps.end(), 600U), 1);
}

// Ends the run from the input thread and leaves it in a push that waits for room: main, which has seen the
// cleared flag after one packet, must take the rest out of its way.
ProxyContext* s_fillingContext = nullptr;

int ClearTheRunFlagAndFillTheQueue(void* /*session*/, uint8_t* /*data*/, int32_t /*length*/)
{
    constexpr int TWICE_THE_QUEUE = 1024;
    s_fillingContext->running = 0;
    for (int i = 0; i < TWICE_THE_QUEUE; ++i)
        (void)s_fillingContext->queue->push(nullptr, PacketQueue::NO_LIMIT); // main skips what is null
    return 0;
}

TEST_F(ProxyRunTest, AnInputThreadThatWaitsForRoomAtTheEndIsLetOut)
{
    int session = 0;
    Prepare({ "-q", "1" }); // a pool that comes round soon: the transform is shown no first datagrams
    s_fillingContext = &*m_context;
    m_context->plugin.session = &session;
    m_context->plugin.dataCallback = ClearTheRunFlagAndFillTheQueue;
    m_context->plugin.closeCallback = [](void*) {};
    std::future<int> run = Start();
    while (m_context->running) {
        SendInput(Payload(188));
        (void)m_receiver.HasDatagram(1);
    }
    const bool hasEnded
        = run.wait_for(std::chrono::milliseconds(LONGEST_WAIT_MS)) == std::future_status::ready;
    EXPECT_TRUE(hasEnded);
    while (run.wait_for(std::chrono::milliseconds(0)) != std::future_status::ready)
        (void)m_context->queue->pop(nullptr, 10);
    EXPECT_EQ(run.get(), 0);
}

// ---- The encryption library at the end

// A part of the C library that nothing here is linked with, so that loading and unloading it can be seen.
constexpr char LIBRARY[] = "libBrokenLocale.so.1";

bool IsLibraryLoaded()
{
    void* handle = dlopen(LIBRARY, RTLD_LAZY | RTLD_NOLOAD);
    if (handle != nullptr)
        (void)dlclose(handle);
    return handle != nullptr;
}

struct Closing {
    void* session;
    bool wasLoaded;
};
std::vector<Closing> s_closings;

void NoteClose(void* session)
{
    s_closings.push_back({ session, IsLibraryLoaded() });
}

int LeaveData(void* /*session*/, uint8_t* /*data*/, int32_t /*length*/)
{
    return 0;
}

TEST_F(ProxyRunTest, TheEndClosesTheSessionOnceWhileItsLibraryIsLoadedAndUnloadsItThen)
{
    s_closings.clear();
    ASSERT_FALSE(IsLibraryLoaded());
    int session = 0;
    Prepare({});
    m_context->plugin.library = dlopen(LIBRARY, RTLD_LAZY);
    m_context->plugin.session = &session;
    m_context->plugin.dataCallback = LeaveData;
    m_context->plugin.closeCallback = NoteClose;
    ASSERT_TRUE(IsLibraryLoaded());
    std::future<int> run = Start();
    Deliver(1);
    EXPECT_TRUE(IsLibraryLoaded());
    End(run);
    ASSERT_EQ(s_closings.size(), 1U);
    EXPECT_EQ(s_closings[0].session, &session);
    EXPECT_TRUE(s_closings[0].wasLoaded);
    EXPECT_FALSE(IsLibraryLoaded());
    EXPECT_EQ(m_context->plugin.library, nullptr);
}

// ---- Without memory for the pacer

// The pacer is the last for which the main thread allocates: what it allocates without one comes before.
TEST_F(ProxyRunTest, WithoutMemoryForAnyPartOfThePacerTheRunGoesOnUnpaced)
{
    constexpr int PACER_ALLOCATIONS = 5; // callback object, pacer, its queue, the queue's slots, the timer
    uint64_t unpaced = 0;
    Prepare({ "-X", "0" });
    std::future<int> run = Start([&](Proxy& proxy) {
        const AllocationCount allocations;
        const int status = proxy.Run();
        unpaced = allocations.Count();
        return status;
    });
    End(run);
    for (int n = 1; n <= PACER_ALLOCATIONS; ++n) {
        bool hasFailed = false;
        Prepare({ "-X", "10000000" });
        run = Start([&](Proxy& proxy) {
            const FailNthAllocation failure(static_cast<int>(unpaced) + n);
            const int status = proxy.Run();
            hasFailed = failure.Fired();
            return status;
        });
        Deliver(static_cast<uint16_t>(n));
        End(run);
        EXPECT_TRUE(hasFailed) << n;
    }
    EXPECT_EQ(CountOf(m_output.Err(), "Error: Pacer not created\n"), size_t { PACER_ALLOCATIONS });
    EXPECT_EQ(m_output.Err().find("Pacing bit rate"), std::string::npos);
    EXPECT_EQ(m_output.Out().find("PeriodicTimer::Start"), std::string::npos);
}

} // namespace
