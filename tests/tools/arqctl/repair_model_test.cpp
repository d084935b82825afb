#include "arqctl/core/repair_model.h"

#include <cmath>
#include <gtest/gtest.h>

namespace arqctl::repair_model_test {
namespace {

constexpr int64_t MS = 1000;

// So many packets a second that a gap shows at once.
RepairLine Quick(double loss, int64_t roundTripMs, int64_t latencyMs)
{
    return { 100'000, loss, loss, roundTripMs * MS, latencyMs * MS, 100 * MS, 1'000'000'000 };
}

int TriesOf(int64_t roundTripMs, int64_t latencyMs)
{
    return RepairOfRandomLoss(Quick(0.02, roundTripMs, latencyMs)).tries;
}

TEST(RepairModel, ATryFailsWhenItsRequestOrItsAnswerIsLost)
{
    RepairLine line = Quick(0.1, 20, 600);
    EXPECT_DOUBLE_EQ(FailingTries(line), 0.19);
    line.lossUp = 0;
    EXPECT_DOUBLE_EQ(FailingTries(line), 0.1);
}

TEST(RepairModel, ATryHasToBringItsAnswerInTime)
{
    EXPECT_EQ(TriesOf(20, 20), 0);
    EXPECT_EQ(TriesOf(20, 21), 1);
    EXPECT_EQ(TriesOf(20, 125), 1);
    EXPECT_EQ(TriesOf(20, 126), 2) << "the hold-off and 5 ms later";
    EXPECT_EQ(TriesOf(20, 601), 6);
    EXPECT_EQ(TriesOf(90, 601), 5);
}

TEST(RepairModel, WhatIsLeftIsLostInEachTry)
{
    for (const double loss : { 0.01, 0.05, 0.2 }) {
        const RepairLine line = Quick(loss, 20, 300);
        EXPECT_NEAR(RepairOfRandomLoss(line).left, loss * std::pow(FailingTries(line), 3), loss * 1e-9);
    }
}

TEST(RepairModel, EachTryThatFailedIsAskedForAgain)
{
    const double fail = 0.36;
    EXPECT_NEAR(RepairOfRandomLoss(Quick(0.2, 20, 300)).asked, 0.2 * (1 + fail + fail * fail), 1e-9);
}

TEST(RepairModel, ALongerHoldOffLeavesFewerTries)
{
    RepairLine line = Quick(0.02, 20, 601);
    line.holdOffUs = 200 * MS;
    EXPECT_EQ(RepairOfRandomLoss(line).tries, 3);
}

TEST(RepairModel, AnAnswerThatTakesLongIsWaitedForWhenTriesAreLeft)
{
    EXPECT_EQ(RepairOfRandomLoss(Quick(0.001, 200, 601)).tries, 3)
        << "0, 200 and 305 ms: the last one in haste";
    EXPECT_EQ(RepairOfRandomLoss(Quick(0.1, 200, 601)).tries, 4) << "two tries would leave more than 1e-4";
    EXPECT_EQ(RepairOfRandomLoss(Quick(0.1, 200, 1401)).tries, 10) << "0, 200, 400, then each 105 ms";
}

TEST(RepairModel, ATryInHasteIsAskedForBeforeItIsKnownThatTheOneBeforeFailed)
{
    const double fail = 0.19;
    EXPECT_NEAR(RepairOfRandomLoss(Quick(0.1, 200, 601)).asked, 0.1 * (1 + 1 + fail + fail * fail), 1e-9);
}

TEST(RepairModel, NothingIsAskedForThatTheProxyHasForgotten)
{
    RepairLine line = Quick(0.02, 20, 601);
    line.reachPackets = 10'600; // 106 ms
    EXPECT_EQ(RepairOfRandomLoss(line).tries, 2);
    line.reachPackets = 0;
    EXPECT_EQ(RepairOfRandomLoss(line).tries, 0);
    EXPECT_DOUBLE_EQ(RepairOfRandomLoss(line).left, 0.02);
}

TEST(RepairModel, AGapShowsWithTheNextPacketThatArrives)
{
    RepairLine line { 10, 0.1, 0, 20 * MS, 1000 * MS, 100 * MS, 1000 };
    EXPECT_EQ(RepairOfRandomLoss(line).tries, 8) << "from 150 ms on";
    // One after two lost in a row begins 100 ms later, and so on: at 950 ms it is the tenth packet, and too late.
    double left = 0;
    for (int row = 0; row < 9; ++row)
        left += 0.9 * std::pow(0.1, row) * std::pow(0.1, 1 + std::floor((979.99 - 150 - 100 * row) / 105));
    EXPECT_NEAR(RepairOfRandomLoss(line).left, 0.1 * (left + std::pow(0.1, 9)), 1e-12);
}

TEST(RepairModel, NothingIsLeftWhereNothingIsLost)
{
    const Repair repair = RepairOfRandomLoss(Quick(0, 20, 600));
    EXPECT_EQ(repair.left, 0);
    EXPECT_EQ(repair.asked, 0);
    EXPECT_EQ(repair.tries, 6);
}

TEST(RepairModel, AnOutageOfATimeThatTheLatencyHasLeftIsRepairedWhole)
{
    const Repair repair = RepairOfOutage(Quick(0, 20, 221), 200 * MS);
    EXPECT_EQ(repair.tries, 1);
    EXPECT_EQ(repair.left, 0);
    EXPECT_DOUBLE_EQ(repair.asked, 1);
}

TEST(RepairModel, OfALongerOneTheOldestPacketsAreLost)
{
    const Repair repair = RepairOfOutage(Quick(0, 20, 170), 200 * MS);
    EXPECT_EQ(repair.tries, 0);
    EXPECT_NEAR(repair.left, 0.25, 0.001) << "50 ms of 200";
}

TEST(RepairModel, TheEndOfAnOutageHasMoreTriesThanItsBeginning)
{
    const Repair repair = RepairOfOutage(Quick(0.1, 20, 226), 200 * MS);
    EXPECT_EQ(repair.tries, 1);
    EXPECT_NEAR(repair.left, 0.5 * 0.19 + 0.5 * 0.19 * 0.19, 0.001);
}

TEST(RepairModel, AnOutageHasAPacketAtLeast)
{
    RepairLine line = Quick(0, 20, 600);
    line.packetRate = 1;
    EXPECT_EQ(RepairOfOutage(line, 1).left, 1) << "its gap shows a second later";
}

} // namespace
} // namespace arqctl::repair_model_test
