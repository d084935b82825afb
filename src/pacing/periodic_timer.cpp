#include "pacing/periodic_timer.h"

#include <cstdio>

#include "base/byte_order.h"
#include "pacing/ms_clock.h"
#include "pacing/wall_clock_steps.h"

bool PeriodicTimer::Start(int32_t periodMs)
{
    if (m_pCallback == nullptr)
        return false;
    m_nPeriodMs = periodMs;
    printf("PeriodicTimer::Start %d\n", periodMs);
    if (m_bRunning)
        return true;
    m_bRunning = true;
    m_bHasThread = pthread_create(&m_thread, nullptr, Work, this) == 0;
    return true;
}

void PeriodicTimer::Stop()
{
    if (!m_bRunning)
        return;
    m_bRunning = false;
    (void)SleepMs(2 * static_cast<uint32_t>(m_nPeriodMs.Load()));
    if (m_bHasThread)
        (void)pthread_join(m_thread, nullptr); // a slow callback may outlast the sleep
    m_bHasThread = false;
}

void* PeriodicTimer::Work(void* timer)
{
    static_cast<PeriodicTimer*>(timer)->Run();
    return nullptr;
}

void PeriodicTimer::Run()
{
    int32_t sleepMs = m_nPeriodMs;
    WallClockSteps steps;
    uint32_t nowMs = GetTimeMs();
    (void)steps.Look(nowMs, GetSteadyMs());
    uint32_t deadline = nowMs + static_cast<uint32_t>(sleepMs);
    while (m_bRunning) {
        if (sleepMs != 0)
            (void)SleepMs(static_cast<uint32_t>(sleepMs));
        if (!m_bRunning)
            break;
        (void)m_pCallback->OnTimer();
        // Read afresh: a Start meanwhile changes it from the next tick on.
        const int32_t periodMs = m_nPeriodMs;
        nowMs = GetTimeMs();
        deadline += steps.Look(nowMs, GetSteadyMs()); // no time has passed, so there is nothing to catch up
        sleepMs = NextSleepMs(periodMs, TicksSince(nowMs, deadline));
        deadline += static_cast<uint32_t>(periodMs);
    }
}

int32_t NextSleepMs(int32_t periodMs, int32_t lateMs)
{
    constexpr int32_t CATCH_UP_MS = 10;
    if (lateMs < periodMs)
        return periodMs;
    return periodMs >= CATCH_UP_MS ? periodMs - CATCH_UP_MS : 0;
}
