#include "pacing/ms_clock.h"

#include <sys/time.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <ctime>

#include <gtest/gtest.h>

#include "base/byte_order.h"

namespace {

TEST(TimeMs, IsSecondsTimesThousandPlusWholeMilliseconds)
{
    EXPECT_EQ(TimeMs({ 0, 0 }), 0U);
    EXPECT_EQ(TimeMs({ 1, 999 }), 1000U);
    EXPECT_EQ(TimeMs({ 1, 1000 }), 1001U);
    EXPECT_EQ(TimeMs({ 1, 999999 }), 1999U);
}

TEST(TimeMs, WrapsModuloTwoToThe32)
{
    EXPECT_EQ(TimeMs({ 4294967, 295000 }), 0xFFFFFFFFU);
    EXPECT_EQ(TimeMs({ 4294967, 296000 }), 0U);
    EXPECT_EQ(TimeMs({ 1700000000, 0 }), static_cast<uint32_t>(1700000000000ULL));
}

TEST(GetTimeMs, IsTheWallClock)
{
    timeval before {};
    (void)gettimeofday(&before, nullptr);
    const uint32_t now = GetTimeMs();
    timeval after {};
    (void)gettimeofday(&after, nullptr);
    EXPECT_GE(TicksSince(now, TimeMs(before)), 0);
    EXPECT_GE(TicksSince(TimeMs(after), now), 0);
}

uint32_t MonotonicMs()
{
    timespec now {};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint32_t>(uint64_t(now.tv_sec) * 1000U + uint64_t(now.tv_nsec) / 1000000U);
}

TEST(GetSteadyMs, IsTheClockThatNobodySetsModuloTwoToThe32)
{
    const uint32_t before = MonotonicMs();
    const uint32_t now = GetSteadyMs();
    const uint32_t after = MonotonicMs();
    EXPECT_GE(TicksSince(now, before), 0);
    EXPECT_GE(TicksSince(after, now), 0);
}

TEST(GetSteadyMs, CountsTheMillisecondsOfASleep)
{
    constexpr uint32_t SLEEP_MS = 30;
    const uint32_t before = GetSteadyMs();
    EXPECT_TRUE(SleepMs(SLEEP_MS));
    EXPECT_GE(TicksSince(GetSteadyMs(), before), static_cast<int32_t>(SLEEP_MS));
}

volatile std::sig_atomic_t alarms = 0;

void CountAlarm(int /*signal*/)
{
    alarms = alarms + 1;
}

TEST(SleepMs, SleepsTheWholeTimeAcrossSignals)
{
    struct sigaction action {};
    struct sigaction oldAction {};
    action.sa_handler = CountAlarm;
    ASSERT_EQ(sigaction(SIGALRM, &action, &oldAction), 0);
    const itimerval every5Ms { { 0, 5000 }, { 0, 5000 } };
    const itimerval off {};
    ASSERT_EQ(setitimer(ITIMER_REAL, &every5Ms, nullptr), 0);
    const auto before = std::chrono::steady_clock::now();
    EXPECT_TRUE(SleepMs(60));
    const auto slept = std::chrono::steady_clock::now() - before;
    ASSERT_EQ(setitimer(ITIMER_REAL, &off, nullptr), 0);
    ASSERT_EQ(sigaction(SIGALRM, &oldAction, nullptr), 0);
    EXPECT_GE(slept, std::chrono::milliseconds(60));
    EXPECT_GT(alarms, 0);
}

TEST(SleepMs, AWholeSecondAndMoreIsSplitRight)
{
    const auto before = std::chrono::steady_clock::now();
    EXPECT_TRUE(SleepMs(1005));
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(1005));
}

} // namespace
