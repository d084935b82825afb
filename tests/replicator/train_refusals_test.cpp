#include "replicator/train_refusals.h"

#include <cerrno>
#include <cstdint>

#include <gtest/gtest.h>

namespace {

constexpr uint32_t NOW = 1000000;

bool AllowsAt(TrainRefusals& refusals, size_t pieceBytes, uint32_t nowMs)
{
    return refusals.Allows(pieceBytes, [nowMs] { return nowMs; });
}

TEST(TrainRefusals, NothingIsRefusedToBeginWithAndNobodyAsksForTheTime)
{
    TrainRefusals refusals;
    int asked = 0;
    EXPECT_TRUE(refusals.Allows(1328, [&asked] { return static_cast<uint32_t>(++asked); }));
    EXPECT_TRUE(refusals.Allows(65507, [&asked] { return static_cast<uint32_t>(++asked); }));
    EXPECT_EQ(asked, 0);
}

TEST(TrainRefusals, ASizeIsRefusedWithAllLargerOnesAndNoSmallerOne)
{
    for (const int error : { EMSGSIZE, EINVAL, EPERM, ENOBUFS }) {
        TrainRefusals refusals;
        refusals.OnRefused(1328, error, NOW);
        EXPECT_TRUE(AllowsAt(refusals, 1327, NOW)) << error;
        EXPECT_FALSE(AllowsAt(refusals, 1328, NOW)) << error;
        EXPECT_FALSE(AllowsAt(refusals, 1329, NOW)) << error;
    }
}

TEST(TrainRefusals, ADeviceThatTakesNoTrainsTakesNoneOfAnySize)
{
    TrainRefusals refusals;
    refusals.OnRefused(1328, EIO, NOW);
    EXPECT_FALSE(AllowsAt(refusals, 1, NOW));
    EXPECT_FALSE(AllowsAt(refusals, 1328, NOW));
}

TEST(TrainRefusals, TheSmallestRefusedSizeCountsInWhateverOrderTheyCome)
{
    TrainRefusals falling;
    falling.OnRefused(1328, EMSGSIZE, NOW);
    falling.OnRefused(600, EMSGSIZE, NOW);
    TrainRefusals rising;
    rising.OnRefused(600, EMSGSIZE, NOW);
    rising.OnRefused(1328, EMSGSIZE, NOW);
    for (TrainRefusals* refusals : { &falling, &rising }) {
        EXPECT_TRUE(AllowsAt(*refusals, 599, NOW));
        EXPECT_FALSE(AllowsAt(*refusals, 600, NOW));
    }
}

TEST(TrainRefusals, AfterFiveSecondsEverySizeIsTriedAgain)
{
    TrainRefusals refusals;
    refusals.OnRefused(1328, EIO, NOW);
    EXPECT_FALSE(AllowsAt(refusals, 1328, NOW + 4999));
    EXPECT_TRUE(AllowsAt(refusals, 1328, NOW + 5000));
    EXPECT_TRUE(AllowsAt(refusals, 1, NOW + 5000));
    EXPECT_TRUE(AllowsAt(refusals, 1328, NOW)); // it is forgotten, not only over
}

TEST(TrainRefusals, EachRefusalBeginsTheTimeAnew)
{
    TrainRefusals refusals;
    refusals.OnRefused(1328, EMSGSIZE, NOW);
    refusals.OnRefused(1328, EMSGSIZE, NOW + 3000);
    EXPECT_FALSE(AllowsAt(refusals, 1328, NOW + 7999));
    EXPECT_TRUE(AllowsAt(refusals, 1328, NOW + 8000));
}

TEST(TrainRefusals, TheMillisecondsMayWrapInBetween)
{
    TrainRefusals refusals;
    constexpr uint32_t BEFORE = 0xFFFFFF00; // 256 ms before 0
    refusals.OnRefused(1328, EMSGSIZE, BEFORE);
    EXPECT_FALSE(AllowsAt(refusals, 1328, BEFORE + 1));
    EXPECT_FALSE(AllowsAt(refusals, 1328, 0));
    EXPECT_FALSE(AllowsAt(refusals, 1328, 4743));
    EXPECT_TRUE(AllowsAt(refusals, 1328, 4744));
}

// More datagrams fit into a send buffer in trains, and whoever waits for room would wait for more of them.
TEST(TrainRefusals, AFullSendBufferRefusesAllSizesForAsLong)
{
    TrainRefusals refusals;
    refusals.OnFull(NOW);
    EXPECT_FALSE(AllowsAt(refusals, 1, NOW));
    EXPECT_FALSE(AllowsAt(refusals, 1328, NOW + TrainRefusals::HOLD_MS - 1));
    EXPECT_TRUE(AllowsAt(refusals, 1328, NOW + TrainRefusals::HOLD_MS));
}

} // namespace
