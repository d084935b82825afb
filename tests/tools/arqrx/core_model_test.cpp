#include "tools/arqrx/core_model.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace arqrx::test {
namespace {

LineSettings AnyLine(Draws& draws)
{
    LineSettings line;
    if (draws.Happens(0.8))
        line.lossShare = static_cast<double>(draws.Below(30)) / 100;
    if (draws.Happens(0.5))
        line.doubleShare = static_cast<double>(draws.Below(20)) / 100;
    line.delayUs = draws.Between(0, 60) * MS;
    if (draws.Happens(0.6))
        line.jitterUs = draws.Between(0, 40) * MS;
    return line;
}

Model::Plan AnyPlan(uint64_t seed)
{
    Draws draws(seed);
    Model::Plan plan;
    plan.seed = seed;
    plan.receiver.latencyUs = draws.Between(100, 1000) * MS;
    plan.receiver.ringPackets = uint32_t { 1 } << draws.Between(6, 12);
    plan.proxy.ringPackets = plan.receiver.ringPackets;
    plan.proxy.bitRate = static_cast<uint32_t>(draws.Between(100'000, 100'000'000));
    plan.receiver.proxyBitRate = plan.proxy.bitRate;
    plan.toReceiver = AnyLine(draws);
    plan.toProxy = AnyLine(draws);
    plan.spacingUs = draws.Between(100, 5000);
    plan.firstSeq
        = static_cast<uint16_t>(draws.Happens(0.5) ? 65536 - draws.Below(1000) : draws.Below(65536));
    plan.firstTimestamp
        = static_cast<uint32_t>(draws.Happens(0.5) ? -draws.Below(180'000) : draws.Below(1U << 31));
    return plan;
}

TEST(ArqrxModel, OutputIsTheInputLessWhatCouldNotBeHadInOrderOnce)
{
    for (uint64_t seed = 1; seed <= 80; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        const Model::Plan plan = AnyPlan(seed);
        Model model(plan);
        const bool isSilent = model.Run();
        const std::vector<int64_t> had(model.couldBeHad.begin(), model.couldBeHad.end());
        const Figures& figures = model.Counted();
        ASSERT_EQ(model.played, had);
        ASSERT_FALSE(model.isIdentityBroken);
        ASSERT_FALSE(model.isWrongByte);
        ASSERT_FALSE(model.isWrongLoss);
        ASSERT_FALSE(model.isEarly);
        ASSERT_FALSE(model.isBusy);
        ASSERT_FALSE(model.isAskedTooSoon);
        ASSERT_FALSE(model.isAskedInVain);
        ASSERT_TRUE(isSilent);
        ASSERT_EQ(figures.waiting, 0U);
        ASSERT_EQ(figures.buffered, 0U);
        ASSERT_EQ(figures.restarts, 0U);
        ASSERT_EQ(figures.strangers, 0U);
        ASSERT_EQ(figures.played, model.played.size());
        ASSERT_EQ(figures.lost,
            static_cast<uint64_t>(model.played.back() - model.played.front() + 1) - figures.played);
        ASSERT_EQ(model.Proxy().wrongChecksum, 0U);
        ASSERT_EQ(model.Proxy().tooOld, 0U);
        ASSERT_EQ(model.Proxy().overBudget, 0U);
    }
}

// Whatever the proxy's clock does meanwhile, and whatever the source leaves out.
TEST(ArqrxModel, KeepsOrderAndIdentityWhileTheClockStepsAndDrifts)
{
    for (uint64_t seed = 1; seed <= 40; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Model::Plan plan = AnyPlan(seed);
        Draws draws(seed + 1000);
        const int64_t firstUs = SECOND + draws.Between(0, plan.packets * plan.spacingUs);
        const int64_t secondUs = SECOND + draws.Between(0, plan.packets * plan.spacingUs);
        const int64_t firstStepUs = draws.Between(-2000, 2000) * MS;
        const int64_t secondStepUs = draws.Between(-2000, 2000) * MS;
        plan.proxyClock = [=](int64_t nowUs) {
            return nowUs + 10 * SECOND + nowUs / 5000 + (nowUs < firstUs ? 0 : firstStepUs)
                + (nowUs < secondUs ? 0 : secondStepUs);
        };
        Model model(plan);
        ASSERT_TRUE(model.Run());
        const Figures& figures = model.Counted();
        ASSERT_FALSE(model.isIdentityBroken);
        ASSERT_FALSE(model.isWrongByte);
        ASSERT_FALSE(model.isBusy);
        ASSERT_FALSE(model.isAskedTooSoon);
        ASSERT_TRUE(std::is_sorted(model.played.begin(), model.played.end(), std::less_equal<>()));
        ASSERT_LE(figures.restarts, 2U);
        ASSERT_EQ(figures.waiting, 0U);
        ASSERT_EQ(figures.buffered, 0U);
        ASSERT_GE(figures.played, model.couldBeHad.size() * 9 / 10);
    }
}

// 8 Mbit/s, a fifth lost each way, a second of latency: a number is lost only if all its tries were, and it had as many
// as there is time for.
TEST(ArqrxModel, OnALineThatLosesAFifthBothWaysOnlyThatIsLostWhichEveryRetryLost)
{
    Model::Plan plan;
    plan.receiver.latencyUs = SECOND;
    plan.packets = 30'000;
    plan.spacingUs = 1316;
    plan.toReceiver = { 0.2, 0, 20 * MS, 2 * MS };
    plan.toProxy = { 0.2, 0, 20 * MS, 2 * MS };
    Model model(plan);
    EXPECT_TRUE(model.Run());
    const Figures& figures = model.Counted();
    EXPECT_NEAR(static_cast<double>(figures.missing), 6000, 350);
    EXPECT_LE(figures.lost, 6U) << "6000 x 0.36^9 is 0.6";
    const std::set<int64_t> played(model.played.begin(), model.played.end());
    for (int64_t number = model.played.front(); number < model.played.back(); ++number) {
        if (played.count(number) == 0) {
            EXPECT_GE(model.tries[number], 8) << number;
        }
    }
    EXPECT_LE(figures.recoverP50Us, 1.3 * static_cast<double>(figures.roundTripUs));
    EXPECT_EQ(
        model.Proxy().heldOff + model.Proxy().tooOld + model.Proxy().overBudget + model.Proxy().notInRing,
        0U);
}

// The round trip is three hold-offs long: waiting for each answer would leave three tries.
TEST(ArqrxModel, OnALongLineThatLosesMuchItAsksBeforeTheAnswerIsHere)
{
    Model::Plan plan;
    plan.receiver.latencyUs = SECOND;
    plan.packets = 20'000;
    plan.spacingUs = 1316;
    plan.toReceiver = { 0.2, 0, 150 * MS, 0 };
    plan.toProxy = { 0.2, 0, 150 * MS, 0 };
    Model model(plan);
    EXPECT_TRUE(model.Run());
    EXPECT_LE(model.Counted().lost, 20U) << "4000 x 0.36^7 is 3; with three tries it would be 190";
    plan.toReceiver.lossShare = 0.01;
    plan.toProxy.lossShare = 0;
    Model good(plan);
    EXPECT_TRUE(good.Run());
    EXPECT_EQ(good.Counted().lost, 0U);
    EXPECT_LE(good.Counted().duplicates, good.Counted().missing / 2) << "and not where that is for nothing";
}

} // namespace
} // namespace arqrx::test
