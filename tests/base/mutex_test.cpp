#include "base/mutex.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <thread>

namespace {

TEST(Mutex, KeepsTwoThreadsOutOfOneBlock)
{
    constexpr int ROUNDS = 20000;
    Mutex mutex;
    int count = 0; // read and written by both threads, under the mutex only
    const auto work = [&] {
        for (int i = 0; i < ROUNDS; ++i) {
            const MutexLock lock(mutex);
            ++count;
        }
    };
    std::thread other(work);
    work();
    other.join();
    EXPECT_EQ(count, 2 * ROUNDS);
}

TEST(Condition, SignalWakesAWaiter)
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
            condition.Wait(mutex);
    }
    other.join();
    EXPECT_TRUE(isReady);
}

TEST(Condition, ADeadlineInThePastTimesOutAtOnce)
{
    Mutex mutex;
    Condition condition;
    const MutexLock lock(mutex);
    EXPECT_EQ(condition.WaitUntil(mutex, timespec { 1, 0 }), ETIMEDOUT);
}

} // namespace
