#include "pacing/periodic_timer.h"

#include <poll.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/captured_output.h"
#include "support/loopback.h"
#include "support/system_hooks.h"

namespace {

using test_support::CapturedOutput;
using test_support::FailCalls;
using test_support::ShortWaits;
using test_support::SystemCall;
using test_support::WaitFor;
using Times = std::vector<uint32_t>;

void WaitMs(int ms)
{
    for (int i = 0; i < ms; ++i)
        (void)poll(nullptr, 0, 1);
}

// Counts its ticks and notes their threads and what they had slept before.
class CountingCallback : public PeriodicTimerCallback {
public:
    explicit CountingCallback(const ShortWaits& waits) : m_waits(waits) {}

    int OnTimer() override
    {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_threads.insert(std::this_thread::get_id());
            m_slept = m_waits.SleepsMs(0);
        }
        ++m_ticks;
        if (m_onTick)
            m_onTick();
        return 0;
    }
    size_t Threads()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_threads.size();
    }
    // The sleeps of the timer's thread up to its last tick.
    Times Slept()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_slept;
    }

    std::atomic<int> m_ticks { 0 };
    std::function<void()> m_onTick;

private:
    const ShortWaits& m_waits;
    std::mutex m_mutex;
    std::set<std::thread::id> m_threads;
    Times m_slept;
};

class PeriodicTimerTest : public testing::Test {
protected:
    void WaitForTicks(int ticks)
    {
        EXPECT_TRUE(WaitFor([&] { return m_callback.m_ticks >= ticks; }));
    }

    ShortWaits m_waits;
    CapturedOutput m_output;
    CountingCallback m_callback { m_waits };
    PeriodicTimer m_timer { &m_callback };
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

TEST_F(PeriodicTimerTest, StartWithoutACallbackReturnsFalseAndPrintsNothing)
{
    PeriodicTimer timer(nullptr);
    EXPECT_FALSE(timer.Start(10));
    EXPECT_EQ(m_output.Out() + m_output.Err(), "");
    timer.Stop();
    EXPECT_TRUE(m_waits.SleepsMs(0).empty());
}

TEST_F(PeriodicTimerTest, StartCallsTheCallbackAfterEachPeriodUntilStop)
{
    EXPECT_TRUE(m_timer.Start(2000));
    WaitForTicks(5);
    m_timer.Stop();
    const int ticks = m_callback.m_ticks;
    const Times slept = m_callback.Slept();
    EXPECT_EQ(slept, Times(slept.size(), 2000));
    EXPECT_EQ(slept.size(), static_cast<size_t>(ticks));
    EXPECT_EQ(m_output.Out(), "PeriodicTimer::Start 2000\n");
    WaitMs(20); // many sleeps, each cut to a millisecond
    EXPECT_EQ(m_callback.m_ticks, ticks);
}

TEST_F(PeriodicTimerTest, ASecondStartPrintsAgainReturnsTrueAndMakesNoSecondThread)
{
    EXPECT_TRUE(m_timer.Start(1));
    EXPECT_TRUE(m_timer.Start(2));
    WaitForTicks(50);
    m_timer.Stop();
    EXPECT_EQ(m_output.Out(), "PeriodicTimer::Start 1\nPeriodicTimer::Start 2\n");
    EXPECT_EQ(m_callback.Threads(), 1U);
}

TEST_F(PeriodicTimerTest, AStartWithAnotherPeriodTakesEffectFromTheNextTickOn)
{
    m_callback.m_onTick = [&] {
        if (m_callback.m_ticks == 2) {
            EXPECT_TRUE(m_timer.Start(3000));
        }
    };
    EXPECT_TRUE(m_timer.Start(2000));
    WaitForTicks(4);
    m_timer.Stop();
    const Times slept = m_callback.Slept();
    ASSERT_GE(slept.size(), 4U);
    EXPECT_EQ(Times(slept.begin(), slept.begin() + 4), (Times { 2000, 2000, 3000, 3000 }));
}

TEST_F(PeriodicTimerTest, APeriodOfZeroCallsBackToBackWithoutASleep)
{
    EXPECT_TRUE(m_timer.Start(0));
    WaitForTicks(1000);
    m_timer.Stop();
    EXPECT_EQ(m_callback.Slept(), Times {});
}

// The tick ends more than a period behind its schedule, however fast the machine is; the second one then is late
// as well.
TEST_F(PeriodicTimerTest, ACallbackThatTakesLongerThanAPeriodMakesTheNextSleepTenMsShorter)
{
    m_callback.m_onTick = [&] {
        if (m_callback.m_ticks == 1)
            WaitMs(50);
    };
    EXPECT_TRUE(m_timer.Start(20));
    WaitForTicks(2);
    m_timer.Stop();
    const Times slept = m_callback.Slept();
    ASSERT_GE(slept.size(), 2U);
    EXPECT_EQ(slept[0], 20U);
    EXPECT_EQ(slept[1], 10U);
}

TEST_F(PeriodicTimerTest, StopOfARunningTimerTakesTwoPeriods)
{
    EXPECT_TRUE(m_timer.Start(40));
    m_timer.Stop();
    EXPECT_EQ(m_waits.SleepsMs(), (Times { 80 }));
}

TEST_F(PeriodicTimerTest, StopOfAStoppedTimerReturnsAtOnce)
{
    m_timer.Stop();
    EXPECT_EQ(m_waits.SleepsMs(0), Times {});
    EXPECT_TRUE(m_timer.Start(100));
    m_timer.Stop();
    m_timer.Stop();
    EXPECT_EQ(m_waits.SleepsMs(0), (Times { 200 }));
}

// However long the callback takes, longer than Stop sleeps too.
TEST_F(PeriodicTimerTest, StopReturnsOnlyAfterASlowCallback)
{
    std::atomic<bool> hasLeft { false };
    m_callback.m_onTick = [&] {
        EXPECT_TRUE(WaitFor([&] { return m_waits.AnySleepsMs().count(4000) == 1; }));
        WaitMs(30);
        hasLeft = true;
    };
    EXPECT_TRUE(m_timer.Start(2000));
    WaitForTicks(1);
    m_timer.Stop();
    EXPECT_TRUE(hasLeft);
    EXPECT_EQ(m_callback.m_ticks, 1);
}

TEST_F(PeriodicTimerTest, ATimerCanBeStartedAgainAfterStop)
{
    EXPECT_TRUE(m_timer.Start(1));
    WaitForTicks(1);
    m_timer.Stop();
    const int ticks = m_callback.m_ticks;
    EXPECT_TRUE(m_timer.Start(1));
    WaitForTicks(ticks + 1);
}

// Nobody looks at whether the thread was made: the pacer's queue then overflows, packet by packet.
TEST_F(PeriodicTimerTest, WithoutAThreadItStartsAndStopsAllTheSame)
{
    {
        const FailCalls threads(SystemCall::CreateThread, EAGAIN);
        EXPECT_TRUE(m_timer.Start(10));
        EXPECT_EQ(threads.Count(), 1);
    }
    m_timer.Stop();
    EXPECT_EQ(m_waits.SleepsMs(), (Times { 20 }));
    EXPECT_EQ(m_output.Out() + m_output.Err(), "PeriodicTimer::Start 10\n");
    EXPECT_TRUE(m_timer.Start(1));
    WaitForTicks(1);
}

} // namespace
