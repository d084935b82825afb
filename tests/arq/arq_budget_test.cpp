#include "arq/arq_budget.h"

#include <gtest/gtest.h>

namespace {

constexpr ArqWindow DEFAULT_WINDOW { 2, 200, 0 };

TEST(HoldOffTicks, IsHalfAnInterval)
{
    EXPECT_EQ(HoldOffTicks(200), 9000U); // 100 ms
    EXPECT_EQ(HoldOffTicks(1), 45U);
    EXPECT_EQ(HoldOffTicks(0), 0U);
    EXPECT_EQ(HoldOffTicks(65535), 2949075U);
}

TEST(MaxAgeTicks, CountsOneRetryMoreThanTheWindow)
{
    EXPECT_EQ(MaxAgeTicks(DEFAULT_WINDOW), 54000U); // 600 ms
    EXPECT_EQ(MaxAgeTicks({ 0, 200, 0 }), 18000U);
    EXPECT_EQ(MaxAgeTicks({ 2, 200, 50 }), 58500U);
    EXPECT_EQ(MaxAgeTicks({ 0, 0, 0 }), 0U);
    EXPECT_EQ(MaxAgeTicks({ 5, 0, 7 }), 630U);
}

TEST(MaxAgeTicks, WrapsModulo32Bits)
{
    const uint64_t exact = (65536ULL * 65535ULL + 65535ULL) * 90ULL;
    EXPECT_EQ(MaxAgeTicks({ 65535, 65535, 65535 }), static_cast<uint32_t>(exact));
}

TEST(WindowDelayMs, IsIntervalTimesRetriesPlusExtra)
{
    EXPECT_EQ(WindowDelayMs(DEFAULT_WINDOW), 400U);
    EXPECT_EQ(WindowDelayMs({ 3, 100, 7 }), 307U);
    EXPECT_EQ(WindowDelayMs({ 0, 100, 7 }), 7U);
    EXPECT_EQ(WindowDelayMs({ 65535, 65535, 65535 }), 65535U * 65535U + 65535U);
}

TEST(BudgetBytes, IsWhatTheBitRateSendsInTheWindow)
{
    EXPECT_EQ(BudgetBytes(DEFAULT_WINDOW, 8000000), 400000U);
    EXPECT_EQ(BudgetBytes({ 1, 100, 20 }, 8000), 120U);
    EXPECT_EQ(BudgetBytes(DEFAULT_WINDOW, 0), 0U);
    EXPECT_EQ(BudgetBytes({ 0, 200, 0 }, 8000000), 0U);
}

TEST(BudgetBytes, RoundsDown)
{
    EXPECT_EQ(BudgetBytes({ 1, 1, 0 }, 7999), 0U);
    EXPECT_EQ(BudgetBytes({ 1, 1, 0 }, 8000), 1U);
    EXPECT_EQ(BudgetBytes({ 1, 1, 0 }, 15999), 1U);
    EXPECT_EQ(BudgetBytes({ 1, 1, 0 }, 16000), 2U);
}

TEST(BudgetBytes, TheProductWrapsBeforeItIsDivided)
{
    EXPECT_EQ(BudgetBytes(DEFAULT_WINDOW, 50000000), 352516U);
    // The largest rate whose product with 400 ms still fits, and the next one.
    EXPECT_EQ(BudgetBytes(DEFAULT_WINDOW, 10737418), 536870U);
    EXPECT_EQ(BudgetBytes(DEFAULT_WINDOW, 10737419), 0U);
}

TEST(BudgetBytes, ANegativeBitRateCountsAsItsUnsignedWord)
{
    EXPECT_EQ(BudgetBytes({ 1, 1, 0 }, static_cast<uint32_t>(-1)), 0xFFFFFFFFU / 8000U);
}

TEST(ByteBudget, CoversAllUpToItsLimit)
{
    ByteBudget budget { 300 };
    EXPECT_TRUE(budget.Spend(100));
    EXPECT_TRUE(budget.Spend(200));
    EXPECT_TRUE(budget.Spend(0));
    EXPECT_FALSE(budget.Spend(1));
}

} // namespace
