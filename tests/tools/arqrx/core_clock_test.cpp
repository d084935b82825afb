#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "tools/arqrx/core_model.h"

namespace arqrx::test {
namespace {

using testing::ElementsAre;
using testing::Ge;
using testing::IsEmpty;
using testing::Le;

// An hour and more in seconds: few packets.
Model::Plan LongPlan(int64_t hours, double ppm)
{
    Model::Plan plan;
    plan.spacingUs = 250 * MS;
    plan.packets = hours * 14'400;
    plan.toReceiver.jitterUs = 3 * MS;
    plan.toReceiver.delayUs = 10 * MS;
    plan.proxyClock = [ppm](int64_t nowUs) {
        return nowUs + static_cast<int64_t>(static_cast<double>(nowUs) * ppm / 1e6);
    };
    return plan;
}

class ArqrxClockDrift : public testing::TestWithParam<double> {};

TEST_P(ArqrxClockDrift, IsFollowedForHoursWithoutLossOrRestart)
{
    const Model::Plan plan = LongPlan(3, GetParam());
    Model model(plan);
    EXPECT_TRUE(model.Run());
    EXPECT_EQ(model.played.size(), static_cast<size_t>(plan.packets));
    EXPECT_EQ(model.Counted().restarts, 0U);
    EXPECT_EQ(model.Counted().lost, 0U);
    const auto [least, most] = std::minmax_element(model.delayUs.begin(), model.delayUs.end());
    EXPECT_GE(*least, 610 * MS - 8 * MS);
    EXPECT_LE(*most, 610 * MS + 8 * MS);
    EXPECT_NEAR(model.Counted().driftPpm, GetParam(), 8);
}

INSTANTIATE_TEST_SUITE_P(Ppm, ArqrxClockDrift, testing::Values(0.0, 50.0, -50.0, 500.0, -500.0));

TEST(ArqrxClock, PlayOutIsBentAndNeverJumpsWhileItFollows)
{
    Model model(LongPlan(1, 500));
    EXPECT_TRUE(model.Run());
    for (size_t i = 1; i < model.dueUs.size(); ++i)
        ASSERT_NEAR(static_cast<double>(model.dueUs[i] - model.dueUs[i - 1]), 250e3, 800) << i;
}

// The proxy's clock steps once by so much, after half of the packets.
Model::Plan StepPlan(int64_t stepUs)
{
    Model::Plan plan;
    plan.packets = 4000;
    plan.firstTimestamp = 1U << 31;
    plan.toReceiver.delayUs = 10 * MS;
    plan.proxyClock = [stepUs](int64_t nowUs) { return nowUs < 3 * SECOND ? nowUs : nowUs + stepUs; };
    return plan;
}

class ArqrxClockStep : public testing::TestWithParam<int64_t> {};

TEST_P(ArqrxClockStep, RestartsPlayOutOnceAndLosesNothing)
{
    const Model::Plan plan = StepPlan(GetParam());
    Model model(plan);
    EXPECT_TRUE(model.Run());
    EXPECT_EQ(model.Counted().restarts, 1U);
    EXPECT_THAT(model.restarts, ElementsAre(2000));
    EXPECT_EQ(model.played.size(), static_cast<size_t>(plan.packets));
    EXPECT_EQ(model.Counted().missing, 0U);
    EXPECT_THAT(model.delayUs, testing::Each(testing::AllOf(Ge(610 * MS - 20), Le(612 * MS))));
}

TEST_P(ArqrxClockStep, LosesNothingOnALineThatLosesAndReorders)
{
    Model::Plan plan = StepPlan(GetParam());
    plan.toReceiver.lossShare = 0.05;
    plan.toReceiver.jitterUs = 5 * MS;
    for (plan.seed = 1; plan.seed <= 5; ++plan.seed) {
        SCOPED_TRACE("seed " + std::to_string(plan.seed));
        Model model(plan);
        EXPECT_TRUE(model.Run());
        EXPECT_EQ(model.Counted().restarts, 1U);
        EXPECT_EQ(model.Counted().lost, 0U);
        EXPECT_FALSE(model.isIdentityBroken);
        EXPECT_FALSE(model.isWrongByte);
        EXPECT_THAT(model.delayUs, testing::Each(testing::AllOf(Ge(605 * MS), Le(620 * MS))));
    }
}

INSTANTIATE_TEST_SUITE_P(Us, ArqrxClockStep,
    testing::Values(250 * MS, SECOND, 3600 * SECOND, 40'000 * SECOND, -150 * MS, -SECOND, -3600 * SECOND,
        -40'000 * SECOND));

TEST(ArqrxClock, ASmallStepIsMadeUpForSlowly)
{
    for (const int64_t stepUs : { 150 * MS, -90 * MS }) {
        Model::Plan plan = StepPlan(stepUs);
        plan.packets = 120'000;
        Model model(plan);
        EXPECT_TRUE(model.Run());
        EXPECT_EQ(model.Counted().restarts, 0U);
        EXPECT_EQ(model.played.size(), static_cast<size_t>(plan.packets));
        EXPECT_NEAR(static_cast<double>(model.delayUs.back()), 610e3, 10e3);
    }
}

TEST(ArqrxClock, OneDamagedTimestampDoesNothing)
{
    for (const int64_t wrongUs : { -SECOND, SECOND, 3600 * SECOND }) {
        Script script;
        for (int number = 0; number < 100; ++number) {
            Media media = Script::Even(number);
            if (number == 50)
                media.timestamp += static_cast<uint32_t>(wrongUs * 9 / 100);
            script.Come(media, number * MS);
        }
        script.RunUntil(SECOND);
        EXPECT_EQ(script.Counted().restarts, 0U);
        EXPECT_EQ(script.Counted().strangers, 1U);
        EXPECT_EQ(script.Counted().lost, 1U);
        EXPECT_EQ(script.played.size(), 99U);
    }
}

} // namespace
} // namespace arqrx::test
