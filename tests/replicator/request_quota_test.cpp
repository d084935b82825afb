#include "replicator/request_quota.h"

#include <gtest/gtest.h>

namespace {

constexpr uint32_t BEGIN_MS = 5000;
constexpr uint32_t LONGEST_LIST = 65535;

TEST(RequestQuota, IsNotSpentAtFirst)
{
    RequestQuota quota;
    EXPECT_FALSE(quota.IsSpent(BEGIN_MS));
}

TEST(RequestQuota, LastsFor1024ResendsInTheHoldOff)
{
    constexpr uint32_t WORK_OF_A_RESEND = 1 + SEND_WORK;
    RequestQuota quota;
    EXPECT_FALSE(quota.IsSpent(BEGIN_MS));
    for (int i = 0; i < 1024; ++i) {
        EXPECT_FALSE(quota.IsSpent(BEGIN_MS));
        quota.Charge(WORK_OF_A_RESEND);
    }
    quota.Charge(WORK_OF_A_RESEND);
    EXPECT_TRUE(quota.IsSpent(BEGIN_MS));
}

// Before it is spent nothing is cut off; what is beyond is paid back later.
TEST(RequestQuota, AfterTheLongestListItIsSpentFor94Ms)
{
    RequestQuota quota;
    EXPECT_FALSE(quota.IsSpent(BEGIN_MS));
    quota.Charge(LONGEST_LIST);
    EXPECT_TRUE(quota.IsSpent(BEGIN_MS));
    EXPECT_TRUE(quota.IsSpent(BEGIN_MS + 93));
    EXPECT_FALSE(quota.IsSpent(BEGIN_MS + 94));
}

TEST(RequestQuota, DrainsAwayWithinThePeriod)
{
    RequestQuota quota;
    EXPECT_FALSE(quota.IsSpent(BEGIN_MS));
    quota.Charge(2 * RequestQuota::MOST_WORK - 1);
    EXPECT_TRUE(quota.IsSpent(BEGIN_MS));
    EXPECT_TRUE(quota.IsSpent(BEGIN_MS + RequestQuota::PERIOD_MS - 1));
    EXPECT_FALSE(quota.IsSpent(BEGIN_MS + RequestQuota::PERIOD_MS));
}

// Whoever keeps asking gets the quota a period, however often it is looked at.
TEST(RequestQuota, IsTheSameInTheLongRunHoweverOftenItIsAskedFor)
{
    constexpr uint32_t PERIODS = 100;
    RequestQuota quota;
    uint64_t work = 0;
    for (uint32_t ms = 0; ms < PERIODS * RequestQuota::PERIOD_MS; ++ms) {
        while (!quota.IsSpent(BEGIN_MS + ms)) {
            quota.Charge(SEND_WORK);
            work += SEND_WORK;
        }
    }
    EXPECT_LE(work, uint64_t { PERIODS + 1 } * RequestQuota::MOST_WORK + SEND_WORK);
    EXPECT_GE(work, uint64_t { PERIODS } * RequestQuota::MOST_WORK);
}

TEST(RequestQuota, ALongSilenceGivesNoMoreThanTheWholeQuota)
{
    RequestQuota quota;
    EXPECT_FALSE(quota.IsSpent(BEGIN_MS));
    EXPECT_FALSE(quota.IsSpent(BEGIN_MS + 3600 * 1000));
    quota.Charge(RequestQuota::MOST_WORK);
    EXPECT_TRUE(quota.IsSpent(BEGIN_MS + 3600 * 1000));
}

// Served while nobody waited: as many as would have wrapped the count, and would have shut it out for hours.
TEST(RequestQuota, NoMoreIsOwedThanTheQuotaAndTheLastRequest)
{
    constexpr uint32_t LISTS = 100000;
    static_assert(uint64_t { LISTS } * LONGEST_LIST > UINT32_MAX);
    RequestQuota quota;
    EXPECT_FALSE(quota.IsSpent(BEGIN_MS));
    for (uint32_t i = 0; i < LISTS; ++i)
        quota.Charge(LONGEST_LIST);
    EXPECT_TRUE(quota.IsSpent(BEGIN_MS + 193));
    EXPECT_FALSE(quota.IsSpent(BEGIN_MS + 194));
}

TEST(RequestQuota, TheClockMayWrap)
{
    RequestQuota quota;
    EXPECT_FALSE(quota.IsSpent(0xFFFFFFFF));
    quota.Charge(RequestQuota::MOST_WORK);
    EXPECT_TRUE(quota.IsSpent(0xFFFFFFFF));
    EXPECT_FALSE(quota.IsSpent(RequestQuota::PERIOD_MS - 1));
}

} // namespace
