#include "base/condition.h"

#include <csignal>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/loopback.h"

namespace {

using test_support::WaitFor;

// That a wait, called in a loop until there is reason to go on, ends when another thread signals.
void ExpectWokenFrom(void (*wait)(Condition&, Mutex&))
{
    Mutex mutex;
    Condition condition;
    bool isReady = false;
    std::thread other([&] {
        {
            const MutexLock lock(mutex);
            isReady = true;
        }
        condition.Signal();
    });
    {
        const MutexLock lock(mutex);
        while (!isReady)
            wait(condition, mutex);
    }
    other.join();
}

TEST(Condition, SignalWakesAWaiter)
{
    ExpectWokenFrom([](Condition& condition, Mutex& mutex) REQUIRES(mutex) { condition.Wait(mutex); });
}

TEST(Condition, ADeadlineInThePastTimesOutAtOnce)
{
    Mutex mutex;
    Condition condition;
    const MutexLock lock(mutex);
    EXPECT_EQ(condition.WaitUntil(mutex, timespec { 1, 0 }), ETIMEDOUT);
}

TEST(Condition, ADeadlineIsATimeOfTheWallClock)
{
    Mutex mutex;
    Condition condition;
    timespec deadline {};
    (void)clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_nsec += 30000000;
    if (deadline.tv_nsec >= 1000000000) {
        deadline.tv_nsec -= 1000000000;
        ++deadline.tv_sec;
    }
    {
        const MutexLock lock(mutex);
        EXPECT_EQ(condition.WaitUntil(mutex, deadline), ETIMEDOUT);
    }
    timespec now {};
    (void)clock_gettime(CLOCK_REALTIME, &now);
    EXPECT_GE(std::make_pair(now.tv_sec, now.tv_nsec), std::make_pair(deadline.tv_sec, deadline.tv_nsec));
}

TEST(Condition, ATimedWaiterThatIsWokenSaysSo)
{
    ExpectWokenFrom([](Condition& condition, Mutex& mutex) REQUIRES(mutex) {
        EXPECT_EQ(condition.WaitUntil(mutex, timespec { 4000000000, 0 }), 0);
    });
}

// One signal lost ends in two threads that wait for each other.
TEST(Condition, TwoThreadsThatWakeEachOtherInTurnLoseNoSignal)
{
    constexpr int ROUNDS = 20000;
    Mutex mutex;
    Condition turns[2];
    int turn = 0;
    const auto play = [&](int self) {
        for (int i = 0; i < ROUNDS; ++i) {
            {
                const MutexLock lock(mutex);
                while (turn % 2 != self)
                    turns[self].Wait(mutex);
                ++turn;
            }
            turns[1 - self].Signal();
        }
    };
    std::thread other(play, 1);
    play(0);
    other.join();
    EXPECT_EQ(turn, 2 * ROUNDS);
}

TEST(Condition, AsManySignalsAsWaitersWakeThemAll)
{
    constexpr int WAITERS = 5;
    Mutex mutex;
    Condition condition;
    int waiting = 0;
    int places = 0;
    std::vector<std::thread> waiters;
    for (int i = 0; i < WAITERS; ++i) {
        waiters.emplace_back([&] {
            const MutexLock lock(mutex);
            ++waiting;
            while (places == 0)
                condition.Wait(mutex);
            --places;
        });
    }
    EXPECT_TRUE(WaitFor([&] {
        const MutexLock lock(mutex);
        return waiting == WAITERS;
    }));
    for (int i = 0; i < WAITERS; ++i) {
        {
            const MutexLock lock(mutex);
            ++places;
        }
        condition.Signal();
    }
    for (std::thread& waiter : waiters)
        waiter.join();
    EXPECT_EQ(places, 0);
}

// How often the thread has gone to sleep; -1 when it has ended.
long Sleeps(pid_t thread)
{
    std::ifstream status("/proc/self/task/" + std::to_string(thread) + "/status");
    const std::string name = "voluntary_ctxt_switches:";
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, name.size(), name) == 0)
            return std::stol(line.substr(name.size()));
    }
    return -1;
}

// A waiter of the packet queue would lose its packet to it.
TEST(Condition, ASignalOfTheProcessEndsNoWait)
{
    struct sigaction action {};
    struct sigaction saved {};
    action.sa_handler = [](int) {}; // without SA_RESTART
    ASSERT_EQ(sigaction(SIGUSR1, &action, &saved), 0);
    Mutex mutex;
    Condition condition;
    bool isReady = false;
    bool wasReady = false;
    std::atomic<pid_t> thread { 0 };
    std::thread waiter([&] {
        const MutexLock lock(mutex);
        thread = gettid();
        condition.Wait(mutex);
        wasReady = isReady;
    });
    EXPECT_TRUE(WaitFor([&] { return thread != 0; }));
    {
        const MutexLock lock(mutex); // it waits
    }
    for (int i = 0; i < 20; ++i) {
        const long before = Sleeps(thread);
        (void)pthread_kill(waiter.native_handle(), SIGUSR1);
        EXPECT_TRUE(WaitFor([&] { return Sleeps(thread) != before; }));
    }
    {
        const MutexLock lock(mutex);
        isReady = true;
    }
    condition.Signal();
    waiter.join();
    EXPECT_TRUE(wasReady);
    (void)sigaction(SIGUSR1, &saved, nullptr);
}

} // namespace
