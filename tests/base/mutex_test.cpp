#include "base/mutex.h"

#include <gtest/gtest.h>

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

} // namespace
