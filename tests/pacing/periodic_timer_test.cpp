#include "pacing/periodic_timer.h"

#include <atomic>
#include <chrono>
#include <mutex>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "replicator/captured_output.h"
#include "replicator/loopback.h"

namespace {

using test_support::CapturedOutput;
using test_support::WaitFor;
using Clock = std::chrono::steady_clock;

// Counts its ticks, notes their threads and can be held up in one.
class CountingCallback : public PeriodicTimerCallback {
public:
    int OnTimer() override
    {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_threads.insert(std::this_thread::get_id());
        }
        ++m_ticks;
        if (m_bHold)
            (void)WaitFor([this] { return !m_bHold; });
        m_bLeft = true;
        return 0;
    }
    size_t Threads()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_threads.size();
    }

    std::atomic<int> m_ticks { 0 };
    std::atomic<bool> m_bHold { false };
    std::atomic<bool> m_bLeft { false };

private:
    std::mutex m_mutex;
    std::set<std::thread::id> m_threads;
};

TEST(NextSleepMs, ATickLessThanAPeriodLateIsNotCorrected)
{
    EXPECT_EQ(NextSleepMs(20, -5), 20);
    EXPECT_EQ(NextSleepMs(20, 0), 20);
    EXPECT_EQ(NextSleepMs(20, 19), 20);
    EXPECT_EQ(NextSleepMs(10, 9), 10);
    EXPECT_EQ(NextSleepMs(5, 4), 5);
}

TEST(NextSleepMs, AWholePeriodLateShortensTheNextSleepByTenMs)
{
    EXPECT_EQ(NextSleepMs(20, 20), 10);
    EXPECT_EQ(NextSleepMs(20, 2000000000), 10);
    EXPECT_EQ(NextSleepMs(11, 11), 1);
    EXPECT_EQ(NextSleepMs(10, 10), 0);
}

TEST(NextSleepMs, APeriodOfNineMsOrLessLeavesNoSleepToALateTick)
{
    EXPECT_EQ(NextSleepMs(9, 9), 0);
    EXPECT_EQ(NextSleepMs(1, 1), 0);
    EXPECT_EQ(NextSleepMs(0, 0), 0);
}

TEST(PeriodicTimer, StartWithoutACallbackReturnsFalseAndPrintsNothing)
{
    PeriodicTimer timer(nullptr);
    CapturedOutput output;
    EXPECT_FALSE(timer.Start(10));
    EXPECT_EQ(output.Out() + output.Err(), "");
    timer.Stop();
}

TEST(PeriodicTimer, StartCallsTheCallbackAgainAndAgainUntilStop)
{
    CountingCallback callback;
    PeriodicTimer timer(&callback);
    CapturedOutput output;
    EXPECT_TRUE(timer.Start(2));
    EXPECT_TRUE(WaitFor([&] { return callback.m_ticks >= 5; }));
    const auto before = Clock::now();
    timer.Stop();
    EXPECT_GE(Clock::now() - before, std::chrono::milliseconds(4));
    const int ticks = callback.m_ticks;
    EXPECT_EQ(output.Out(), "PeriodicTimer::Start 2\n");
    EXPECT_EQ(callback.m_ticks, ticks);
}

TEST(PeriodicTimer, TheFirstTickComesAPeriodAfterTheStart)
{
    CountingCallback callback;
    PeriodicTimer timer(&callback);
    const CapturedOutput output;
    const auto before = Clock::now();
    EXPECT_TRUE(timer.Start(50));
    EXPECT_TRUE(WaitFor([&] { return callback.m_ticks >= 2; }));
    EXPECT_GE(Clock::now() - before, std::chrono::milliseconds(98));
    timer.Stop();
}

TEST(PeriodicTimer, ASecondStartPrintsAgainReturnsTrueAndMakesNoSecondThread)
{
    CountingCallback callback;
    PeriodicTimer timer(&callback);
    CapturedOutput output;
    EXPECT_TRUE(timer.Start(1));
    EXPECT_TRUE(timer.Start(2));
    EXPECT_TRUE(WaitFor([&] { return callback.m_ticks >= 50; }));
    timer.Stop();
    EXPECT_EQ(output.Out(), "PeriodicTimer::Start 1\nPeriodicTimer::Start 2\n");
    EXPECT_EQ(callback.Threads(), 1U);
}

TEST(PeriodicTimer, AStartWithAnotherPeriodTakesEffectFromTheNextTickOn)
{
    CountingCallback callback;
    PeriodicTimer timer(&callback);
    const CapturedOutput output;
    EXPECT_TRUE(timer.Start(100));
    EXPECT_TRUE(timer.Start(0)); // the worker still sleeps its first 100 ms at most
    EXPECT_TRUE(WaitFor([&] { return callback.m_ticks >= 2000; }));
    timer.Stop();
}

TEST(PeriodicTimer, APeriodOfZeroCallsBackToBack)
{
    CountingCallback callback;
    PeriodicTimer timer(&callback);
    const CapturedOutput output;
    const auto before = Clock::now();
    EXPECT_TRUE(timer.Start(0));
    EXPECT_TRUE(WaitFor([&] { return callback.m_ticks >= 20000; }));
    timer.Stop();
    EXPECT_LT(Clock::now() - before, std::chrono::seconds(10)); // a sleep of 1 ms a tick would take 20 s
}

TEST(PeriodicTimer, StopOfARunningTimerTakesTwoPeriodsAtLeast)
{
    constexpr int32_t PERIOD_MS = 40;
    CountingCallback callback;
    PeriodicTimer timer(&callback);
    EXPECT_TRUE(timer.Start(PERIOD_MS));
    const auto before = std::chrono::steady_clock::now();
    timer.Stop();
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(2 * PERIOD_MS));
}

TEST(PeriodicTimer, StopOfAStoppedTimerReturnsAtOnce)
{
    CountingCallback callback;
    PeriodicTimer timer(&callback);
    const CapturedOutput output;
    EXPECT_TRUE(timer.Start(100));
    timer.Stop();
    const auto before = Clock::now();
    timer.Stop();
    EXPECT_LT(Clock::now() - before, std::chrono::milliseconds(200));
}

TEST(PeriodicTimer, StopReturnsOnlyAfterASlowCallback)
{
    CountingCallback callback;
    callback.m_bHold = true;
    PeriodicTimer timer(&callback);
    const CapturedOutput output;
    EXPECT_TRUE(timer.Start(1));
    EXPECT_TRUE(WaitFor([&] { return callback.m_ticks == 1; }));
    std::atomic<bool> isStopped { false };
    bool hadLeft = false;
    std::thread stopper([&] {
        timer.Stop();
        hadLeft = callback.m_bLeft;
        isStopped = true;
    });
    const auto end = Clock::now() + std::chrono::milliseconds(100); // many times the two periods
    (void)WaitFor([&] { return isStopped || Clock::now() > end; });
    EXPECT_FALSE(isStopped);
    callback.m_bHold = false;
    stopper.join();
    EXPECT_TRUE(hadLeft);
    EXPECT_EQ(callback.m_ticks, 1);
}

TEST(PeriodicTimer, ATimerCanBeStartedAgainAfterStop)
{
    CountingCallback callback;
    PeriodicTimer timer(&callback);
    const CapturedOutput output;
    EXPECT_TRUE(timer.Start(1));
    EXPECT_TRUE(WaitFor([&] { return callback.m_ticks >= 1; }));
    timer.Stop();
    const int ticks = callback.m_ticks;
    EXPECT_TRUE(timer.Start(1));
    EXPECT_TRUE(WaitFor([&] { return callback.m_ticks > ticks; }));
}

} // namespace
