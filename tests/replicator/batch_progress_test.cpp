#include "replicator/batch_progress.h"

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/batch_fixture.h"
#include "support/loopback.h"
#include "support/system_hooks.h"

namespace {

using namespace test_support;

constexpr uint32_t LOOK_MS = 1;

TEST(BatchProgress, NobodyWaitsWhileNoBatchIsUnderWay)
{
    const ShortWaits waits;
    BatchProgress progress;
    progress.WaitForBegun();
    progress.Begin();
    progress.End();
    progress.WaitForBegun();
    EXPECT_TRUE(waits.SleepsMs(LOOK_MS).empty());
}

TEST(BatchProgress, ABatchUnderWayIsWaitedForUntilItHasEnded)
{
    const ShortWaits waits;
    BatchProgress progress;
    std::atomic<bool> hasEnded { false };
    std::atomic<bool> wasLate { false };
    progress.Begin();
    std::thread waiter([&] {
        progress.WaitForBegun();
        wasLate = hasEnded.load();
    });
    EXPECT_TRUE(WaitFor([&] { return !waits.OthersSleepsMs().empty(); }));
    hasEnded = true;
    progress.End();
    waiter.join();
    EXPECT_TRUE(wasLate || waits.OthersSleepsMs().size() == BatchProgress::LONGEST_WAIT_MS);
}

TEST(BatchProgress, ALaterBatchIsNotWaitedFor)
{
    const ShortWaits waits;
    BatchProgress progress;
    progress.Begin();
    std::thread waiter([&] { progress.WaitForBegun(); });
    EXPECT_TRUE(WaitFor([&] { return !waits.OthersSleepsMs().empty(); }));
    progress.Begin();
    progress.End();
    waiter.join();
    progress.WaitForBegun(); // this one does: the second is still under way
    EXPECT_EQ(waits.SleepsMs(LOOK_MS).size(), BatchProgress::LONGEST_WAIT_MS);
}

TEST(BatchProgress, ABatchThatDoesNotEndIsWaitedForTwentyMs)
{
    const ShortWaits waits;
    BatchProgress progress;
    progress.Begin();
    progress.WaitForBegun();
    EXPECT_EQ(waits.SleepsMs(LOOK_MS), std::vector<uint32_t>(20, LOOK_MS));
}

class BatchUnderWay : public BatchTest<FanOutTest> {
protected:
    // How often who serves a request would look again, if the request came now.
    size_t Looks()
    {
        const ShortWaits waits;
        m_fanOut.WaitForBatch();
        return waits.SleepsMs(LOOK_MS).size();
    }
    // The same for each message that leaves while packets are sent, and after that.
    std::vector<size_t> LooksWhileSending(WatchedSends::Refusal refusal)
    {
        std::vector<size_t> looks;
        {
            const WatchedSends sends([&](const SentMessage& message) {
                looks.push_back(Looks());
                return refusal(message);
            });
            EXPECT_EQ(SendAll(), 1);
        }
        looks.push_back(Looks());
        return looks;
    }
    static int Pass(const SentMessage& /*message*/) { return 0; }
};

TEST_F(BatchUnderWay, ARequestWaitsUntilThePacketsThatAreBeingSentAreRemembered)
{
    MakeRtp({ 188, 188 });
    EXPECT_EQ(LooksWhileSending(Pass), (std::vector<size_t> { 20, 20, 20, 0 }));
}

TEST_F(BatchUnderWay, NoRequestWaitsForASinglePacket)
{
    MakeRtp({ 188 });
    EXPECT_EQ(LooksWhileSending(Pass), (std::vector<size_t> { 0, 0, 0, 0 }));
}

TEST_F(BatchUnderWay, NoRequestWaitsForASendThatWaits)
{
    MakeRtp({ 188, 188 });
    // A's and B's train; then B and C get packet 0 plainly, and what is left.
    const std::vector<size_t> looks = LooksWhileSending(BWaits());
    ASSERT_GT(looks.size(), 4U);
    EXPECT_EQ(looks[0], 20U);
    EXPECT_EQ(looks[1], 20U);
    for (size_t i = 2; i < looks.size(); ++i)
        EXPECT_EQ(looks[i], 0U) << i;
    ExpectEachGot({ 0, 1 });
}

} // namespace
