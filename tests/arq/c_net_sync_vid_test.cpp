#include "arq/c_net_sync_vid.h"

#include <gtest/gtest.h>

#include <limits>

#include "arq/media_clock.h"
#include "base/byte_order.h"
#include "support/allocation_hooks.h"

using test_support::FailNthAllocation;

namespace {

constexpr uint32_t WINDOW = 32;

class CNetSyncVidTest : public testing::Test {
protected:
    int32_t m_nStatus = 0;
    CNetSyncVid m_clock { m_nStatus, WINDOW };
};

TEST_F(CNetSyncVidTest, StartsWithOffsetZeroAndAnUnfilledWindow)
{
    EXPECT_EQ(m_nStatus, 0);
    EXPECT_EQ(m_clock.WindowSize(), WINDOW);
    EXPECT_EQ(m_clock.GetOffset(), 0);
    EXPECT_FALSE(m_clock.IsWindowFull());
}

TEST_F(CNetSyncVidTest, LocalNowIsTheMediaClockWhateverTheOffset)
{
    (void)m_clock.AddSample(1000000);
    const uint32_t before = MediaClock();
    const uint32_t now = m_clock.LocalNow();
    const uint32_t after = MediaClock();
    EXPECT_GE(TicksSince(now, before), 0);
    EXPECT_LE(TicksSince(now, after), 0);
}

TEST_F(CNetSyncVidTest, SyncNowIsLocalNowPlusOffset)
{
    (void)m_clock.AddSample(1000000);
    const uint32_t before = m_clock.LocalNow() + 1000000;
    const uint32_t now = m_clock.SyncNow();
    const uint32_t after = m_clock.LocalNow() + 1000000;
    EXPECT_GE(TicksSince(now, before), 0);
    EXPECT_LE(TicksSince(now, after), 0);
}

TEST_F(CNetSyncVidTest, ToSyncAddsTheOffsetAndToLocalTakesItOff)
{
    (void)m_clock.AddSample(-7);
    EXPECT_EQ(m_clock.ToSync(100), 93U);
    EXPECT_EQ(m_clock.ToLocal(93), 100U);
    EXPECT_EQ(m_clock.ToSync(5), 0xFFFFFFFEU);
    EXPECT_EQ(m_clock.ToLocal(0xFFFFFFFE), 5U);
}

TEST_F(CNetSyncVidTest, TheOffsetIsTheLargestSampleOfTheWindow)
{
    EXPECT_EQ(m_clock.AddSample(-5), 5); // old minus new
    EXPECT_EQ(m_clock.GetOffset(), -5);
    EXPECT_EQ(m_clock.AddSample(-3), -2);
    EXPECT_EQ(m_clock.GetOffset(), -3);
    EXPECT_EQ(m_clock.AddSample(-9), 0);
    EXPECT_EQ(m_clock.GetOffset(), -3);
}

TEST_F(CNetSyncVidTest, ASampleLeavesTheWindowAfter32More)
{
    (void)m_clock.AddSample(50);
    for (uint32_t i = 0; i < WINDOW - 1; ++i)
        EXPECT_EQ(m_clock.AddSample(10), 0);
    EXPECT_EQ(m_clock.AddSample(10), 40);
    EXPECT_EQ(m_clock.GetOffset(), 10);
}

TEST_F(CNetSyncVidTest, AfterAResetTheOffsetIsNotNegativeUntil32SamplesHaveCome)
{
    (void)m_clock.AddSample(-5);
    m_clock.ResetSync();
    EXPECT_EQ(m_clock.GetOffset(), 0);
    for (uint32_t i = 0; i < WINDOW - 1; ++i)
        EXPECT_EQ(m_clock.AddSample(-5), 0);
    EXPECT_EQ(m_clock.GetOffset(), 0);
    EXPECT_EQ(m_clock.AddSample(-5), 5);
    EXPECT_EQ(m_clock.GetOffset(), -5);
}

TEST_F(CNetSyncVidTest, TheWindowIsFullAfter32SamplesAndStaysSoAfterAReset)
{
    for (uint32_t i = 0; i < WINDOW - 1; ++i)
        (void)m_clock.AddSample(1);
    EXPECT_FALSE(m_clock.IsWindowFull());
    (void)m_clock.AddSample(1);
    EXPECT_TRUE(m_clock.IsWindowFull());
    m_clock.ResetSync();
    EXPECT_TRUE(m_clock.IsWindowFull());
}

TEST_F(CNetSyncVidTest, TheSmallestSampleWrapsTheDifference)
{
    constexpr int32_t SMALLEST = std::numeric_limits<int32_t>::min();
    EXPECT_EQ(m_clock.AddSample(SMALLEST), SMALLEST);
    EXPECT_EQ(m_clock.GetOffset(), SMALLEST);
}

TEST(CNetSyncVid, AStatusThatWasNotZeroBecomesFailed)
{
    int32_t status = 1;
    const CNetSyncVid clock(status, WINDOW);
    EXPECT_EQ(static_cast<uint32_t>(status), 0x80000001U);
}

TEST(CNetSyncVid, EitherFailedAllocationGivesTheFailedStatusAndAClockThatRuns)
{
    for (int n = 1; n <= 2; ++n) { // the filter, its array
        int32_t status = 0;
        const FailNthAllocation failure(n);
        CNetSyncVid clock(status, WINDOW);
        EXPECT_TRUE(failure.Fired()) << "allocation " << n;
        EXPECT_EQ(static_cast<uint32_t>(status), 0x80000001U) << "allocation " << n;
        EXPECT_EQ(clock.AddSample(5), 0);
        EXPECT_EQ(clock.GetOffset(), 0);
        EXPECT_FALSE(clock.IsWindowFull());
        clock.ResetSync();
        const uint32_t before = MediaClock();
        EXPECT_GE(TicksSince(clock.LocalNow(), before), 0);
    }
}

} // namespace
