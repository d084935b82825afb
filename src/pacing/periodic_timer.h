#pragma once

#include <pthread.h>

#include <cstdint>

#include "base/plain_word.h"

class PeriodicTimerCallback {
public:
    PeriodicTimerCallback() = default;
    PeriodicTimerCallback(const PeriodicTimerCallback&) = delete;
    PeriodicTimerCallback& operator=(const PeriodicTimerCallback&) = delete;
    virtual ~PeriodicTimerCallback() = default;

    // One tick, on the timer's own thread; the result is ignored. Does its own locking.
    virtual int OnTimer() = 0;
};

// Calls a callback once every period from a thread of its own.
//
// Threads: one owner calls Start and Stop; the worker polls the period and the running flag.
class PeriodicTimer {
public:
    // The callback, which may be null, is not owned and outlives the running timer.
    explicit PeriodicTimer(PeriodicTimerCallback* callback) : m_pCallback(callback) {}
    PeriodicTimer(const PeriodicTimer&) = delete;
    PeriodicTimer& operator=(const PeriodicTimer&) = delete;
    ~PeriodicTimer() { Stop(); }

    // Starts the worker, or only changes the period when it runs. False without a callback.
    bool Start(int32_t periodMs);

    // Returns once the callback is no longer called, two periods later at the earliest; at once when the
    // timer does not run. Must not be called from the callback.
    void Stop();

private:
    static void* Work(void* timer);
    void Run();

    PlainWord<int32_t> m_nPeriodMs { 0 }; // the owner writes, the worker reads
    pthread_t m_thread {};
    bool m_bHasThread = false; // there is a worker to wait for
    PeriodicTimerCallback* m_pCallback;
    PlainWord<bool> m_bRunning { false }; // the owner writes, the worker reads
};

// The sleep before the next tick, given how late the last one ended. Coarse on purpose: a tick a whole
// period late or more gives back 10 ms, anything less nothing, and no tick is ever skipped.
int32_t NextSleepMs(int32_t periodMs, int32_t lateMs);
