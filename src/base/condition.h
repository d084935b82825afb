#pragma once

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <ctime>

#include "base/mutex.h"

// A condition variable straight on the kernel's futex. The C library's costs 0.2 us more each time that one
// thread wakes another, which here is with each packet. Its deadlines are wall-clock times.
//
// Threads: any; who waits holds the mutex under which the condition is changed.
class Condition {
public:
    Condition() = default;
    Condition(const Condition&) = delete;
    Condition& operator=(const Condition&) = delete;
    ~Condition() = default;

    // Waits once; may return without a signal (spurious wake-up).
    void Wait(Mutex& mutex) REQUIRES(mutex) { (void)Sleep(mutex, nullptr); }

    // Waits once, to the deadline at most. Returns 0 when woken, an error number (ETIMEDOUT) otherwise.
    int WaitUntil(Mutex& mutex, const timespec& deadline) REQUIRES(mutex) { return Sleep(mutex, &deadline); }

    // Wakes one waiter; needs no lock held. Who has changed the condition under the mutex sees here everyone
    // that found it unchanged: a waiter counts itself before it lets the mutex go.
    void Signal()
    {
        if (m_nWaiters.load() == 0)
            return;
        m_nSignals.fetch_add(1);
        (void)syscall(SYS_futex, &m_nSignals, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
    }

private:
    int Sleep(Mutex& mutex, const timespec* deadline) REQUIRES(mutex)
    {
        m_nWaiters.fetch_add(1);
        const uint32_t seen = m_nSignals.load();
        mutex.Unlock();
        const int error = SleepWhile(seen, deadline);
        m_nWaiters.fetch_sub(1);
        mutex.Lock();
        return error;
    }

    // A signal between the unlocking and the sleep has changed the number: then there is no sleep. A
    // process's signals (SIGCONT, say) wake nobody.
    int SleepWhile(uint32_t seen, const timespec* deadline)
    {
        constexpr int WAIT = FUTEX_WAIT_BITSET_PRIVATE | FUTEX_CLOCK_REALTIME;
        while (syscall(SYS_futex, &m_nSignals, WAIT, seen, deadline, nullptr, FUTEX_BITSET_MATCH_ANY) != 0) {
            if (errno != EINTR)
                return errno == EAGAIN ? 0 : errno;
        }
        return 0;
    }

    std::atomic<uint32_t> m_nSignals { 0 };
    std::atomic<uint32_t> m_nWaiters { 0 };
    static_assert(
        std::atomic<uint32_t>::is_always_lock_free && sizeof(std::atomic<uint32_t>) == sizeof(uint32_t));
};
