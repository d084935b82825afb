#include "main/log_batch.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace {

constexpr size_t BATCH_CAPACITY = 100;

using Runs = std::vector<std::pair<int, std::string>>;

Runs RunsOf(const LogBatch& batch)
{
    Runs runs;
    size_t place = 0;
    for (LogRun run = batch.Next(&place); !run.text.empty(); run = batch.Next(&place))
        runs.emplace_back(run.fd, run.text);
    return runs;
}

TEST(LogBatch, IsEmptyAtFirstAndAfterClear)
{
    bool ok = true;
    LogBatch batch(ok, BATCH_CAPACITY);
    EXPECT_TRUE(ok);
    EXPECT_TRUE(batch.IsEmpty());
    EXPECT_TRUE(batch.Put(1, "a", 0));
    EXPECT_FALSE(batch.IsEmpty());
    batch.Clear();
    EXPECT_TRUE(batch.IsEmpty());
    EXPECT_EQ(RunsOf(batch), Runs {});
}

TEST(LogBatch, GivesTextsForOneDescriptorThatFollowEachOtherAsOneRunAndKeepsTheOrder)
{
    bool ok = true;
    LogBatch batch(ok, BATCH_CAPACITY);
    for (const auto& [fd, text] :
        Runs { { 2, "Oct 1: " }, { 2, "first\n" }, { 1, "second\n" }, { 2, "third\n" } })
        EXPECT_TRUE(batch.Put(fd, text, 0));
    EXPECT_EQ(RunsOf(batch), (Runs { { 2, "Oct 1: first\n" }, { 1, "second\n" }, { 2, "third\n" } }));
}

TEST(LogBatch, StartsANewRunAfterClearForTheSameDescriptorToo)
{
    bool ok = true;
    LogBatch batch(ok, BATCH_CAPACITY);
    EXPECT_TRUE(batch.Put(2, "old", 0));
    batch.Clear();
    EXPECT_TRUE(batch.Put(2, "new", 0));
    EXPECT_EQ(RunsOf(batch), (Runs { { 2, "new" } }));
}

TEST(LogBatch, TakesATextThatFillsItAndNoneThatIsAByteLonger)
{
    const std::string fits(BATCH_CAPACITY - LogBatch::RUN_BYTES, 'x');
    bool ok = true;
    LogBatch batch(ok, BATCH_CAPACITY);
    EXPECT_FALSE(batch.Put(2, fits + "x", 0));
    EXPECT_TRUE(batch.IsEmpty());
    EXPECT_TRUE(batch.Put(2, fits, 0));
    EXPECT_FALSE(batch.Put(1, "", 0));
    EXPECT_EQ(RunsOf(batch), (Runs { { 2, fits } }));
}

TEST(LogBatch, LeavesTheReserveFree)
{
    const std::string text(BATCH_CAPACITY - LogBatch::RUN_BYTES - 10, 'x');
    bool ok = true;
    LogBatch batch(ok, BATCH_CAPACITY);
    EXPECT_FALSE(batch.Put(2, text, 11));
    EXPECT_TRUE(batch.Put(2, text, 10));
    EXPECT_FALSE(batch.Put(2, text, static_cast<size_t>(-1))) << "a sum that wraps is too much";
}

} // namespace
