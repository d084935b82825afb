#include "arqctl/core/calc.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace arqctl::calc_test {
namespace {

constexpr int64_t MS = 1000;

CalcInput Usual()
{
    CalcInput input;
    input.bitRate = 8'000'000;
    input.lossDown = 0.02;
    input.lossUp = 0.02;
    input.roundTripUs = 40 * MS;
    input.receivers = 50;
    return input;
}

bool Holds(const CalcInput& input, const std::string& name)
{
    const CalcResult result = Calculate(input);
    const auto limit = std::ranges::find(result.limits, name, &CalcLimit::name);
    if (limit == result.limits.end())
        throw std::logic_error("no limit " + name);
    EXPECT_FALSE(limit->text.empty());
    EXPECT_EQ(limit->advice.empty(), limit->isHeld) << limit->advice;
    EXPECT_LE(limit->isHeld ? 0 : 1, result.IsHeld() ? 0 : 1);
    return limit->isHeld;
}

TEST(Calc, TheLatencyIsTheShortestThatLeavesTheTarget)
{
    CalcInput input = Usual();
    for (const double target : { 1e-3, 1e-6, 1e-9 }) {
        input.targetLoss = target;
        input.latencyUs = 0;
        const CalcResult chosen = Calculate(input);
        EXPECT_LE(chosen.random.left, target);
        input.latencyUs = chosen.latencyUs - 30 * MS; // a margin of 20 ms and a step
        EXPECT_GT(Calculate(input).random.left, target);
    }
}

TEST(Calc, TheUsualTargetIsOneOfAMillion)
{
    const CalcResult result = Calculate(Usual());
    EXPECT_EQ(result.latencyUs, 380 * MS);
    EXPECT_EQ(result.random.tries, 4);
}

TEST(Calc, ALatencyThatIsGivenStays)
{
    CalcInput input = Usual();
    input.latencyUs = 123'456;
    EXPECT_EQ(Calculate(input).latencyUs, 123'456);
}

TEST(Calc, AnOutageTakesItsTimeOfTheLatency)
{
    CalcInput input = Usual();
    const CalcResult without = Calculate(input);
    EXPECT_EQ(without.outagePackets, 0);
    input.outageUs = 200 * MS;
    const CalcResult with = Calculate(input);
    EXPECT_EQ(with.latencyUs, without.latencyUs + 200 * MS);
    EXPECT_EQ(with.outagePackets, 152);
    EXPECT_EQ(with.outage.tries, 4) << "as many as single losses have without it";
}

TEST(Calc, WithoutLossThereIsOneTryAndNothingIsLeft)
{
    CalcInput input = Usual();
    input.lossDown = input.lossUp = 0;
    const CalcResult result = Calculate(input);
    EXPECT_EQ(result.random.tries, 1);
    EXPECT_EQ(result.random.left, 0);
    EXPECT_EQ(result.flows.resends.packetRate, 0);
}

TEST(Calc, TheRingIsAPowerOfTwoThatHoldsWhateverMayBeSentAgain)
{
    CalcInput input = Usual();
    for (const int64_t rate : { 8'000'000, 50'000'000, 100'000'000, 400'000'000 }) {
        input.bitRate = rate;
        const CalcResult result = Calculate(input);
        EXPECT_EQ(result.ringPackets & (result.ringPackets - 1), 0);
        EXPECT_GE(static_cast<double>(result.ringPackets),
            result.packetRate * static_cast<double>(result.latencyUs) * 1.25 / 1e6);
        EXPECT_GE(result.ringPackets, result.ringNeeded);
        EXPECT_TRUE(result.ringPackets == 1024 || result.ringPackets / 2 < result.ringNeeded);
    }
}

TEST(Calc, TheBudgetIsTheLargestThatDoesNotWrap)
{
    CalcInput input = Usual();
    for (const int64_t latencyMs : { 10, 100, 380, 600, 5000, 60'000 }) {
        input.latencyUs = latencyMs * MS;
        const CalcResult result = Calculate(input);
        const int64_t product = result.grossBitRate * result.budgetMs;
        EXPECT_LT(product, int64_t { 1 } << 32) << latencyMs;
        EXPECT_EQ(result.budgetBytes, product / 8000);
        EXPECT_GT(result.budgetBytes, 500'000);
        EXPECT_LE(result.budgetBytes, 536'870);
        EXPECT_GE(result.windowMs, latencyMs + 100);
    }
}

TEST(Calc, NothingIsAskedForFartherBehindThanNumbersTellApart)
{
    CalcInput input = Usual();
    input.bitRate = int64_t { 10'000 } * 1316 * 8;
    input.latencyUs = 60'000 * MS;
    EXPECT_EQ(Calculate(input).random.tries, 32) << "within 3.28 s";
}

TEST(Calc, TheBandwidthIsThatOfIp)
{
    const CalcResult result = Calculate(Usual());
    EXPECT_NEAR(result.packetRate, 759.88, 0.01);
    EXPECT_NEAR(result.flows.media.bitRate, 759.88 * 1356 * 8, 200);
    EXPECT_NEAR(result.flows.requests.packetRate, 759.88 * 0.02 / (1 - 0.0396), 0.01);
    EXPECT_NEAR(result.flows.requests.bitRate, result.flows.requests.packetRate * 48 * 8, 1e-6);
    EXPECT_NEAR(result.flows.resends.packetRate, result.flows.requests.packetRate * 0.98, 1e-9);
    EXPECT_NEAR(result.flows.resends.bitRate, result.flows.resends.packetRate * 1356 * 8, 1e-6);
    EXPECT_DOUBLE_EQ(result.flows.pings.bitRate, 40 * 8);
    EXPECT_DOUBLE_EQ(result.flows.echoes.bitRate, 45 * 8);
}

TEST(Calc, ThereAreAThousandRequestsASecondAtMost)
{
    CalcInput input = Usual();
    input.bitRate = 800'000'000;
    const CalcFlow requests = Calculate(input).flows.requests;
    EXPECT_DOUBLE_EQ(requests.packetRate, 1000);
    EXPECT_NEAR(requests.bitRate, (1000 * 46 + 1582.4 * 2) * 8, 10);
}

TEST(CalcLimits, UsuallyAllHold)
{
    EXPECT_TRUE(Calculate(Usual()).IsHeld());
}

TEST(CalcLimits, AProxyHasFiftyReceivers)
{
    CalcInput input = Usual();
    EXPECT_TRUE(Holds(input, "receivers"));
    input.receivers = 51;
    EXPECT_FALSE(Holds(input, "receivers"));
    EXPECT_NE(Calculate(input).limits[0].advice.find("take 2 proxies of 48"), std::string::npos);
}

TEST(CalcLimits, ALatencyWithoutATryHelpsNobody)
{
    CalcInput input = Usual();
    input.latencyUs = 45 * MS;
    EXPECT_TRUE(Holds(input, "latency"));
    input.latencyUs = 40 * MS;
    EXPECT_FALSE(Holds(input, "latency"));
}

TEST(CalcLimits, ATargetMayBeOutOfReach)
{
    CalcInput input = Usual();
    input.lossDown = input.lossUp = 0.5;
    input.roundTripUs = 10'000 * MS;
    input.targetLoss = 1e-4;
    EXPECT_TRUE(Holds(input, "latency"));
    input.outageUs = 59'000 * MS;
    EXPECT_FALSE(Holds(input, "latency"));
    EXPECT_EQ(Calculate(input).latencyUs, MOST_LATENCY_US);
}

TEST(CalcLimits, AnOutageHasToBeOverInTime)
{
    CalcInput input = Usual();
    input.latencyUs = 300 * MS;
    input.outageUs = 250 * MS;
    EXPECT_TRUE(Holds(input, "outage"));
    input.outageUs = 260 * MS;
    EXPECT_FALSE(Holds(input, "outage"));
}

TEST(CalcLimits, RingAndNumbersEnd)
{
    CalcInput input = Usual();
    input.latencyUs = 4'000 * MS; // a window of 5000 ms
    input.bitRate = int64_t { 32'767 } * 1316 * 8 / 4;
    EXPECT_TRUE(Holds(input, "numbers"));
    input.bitRate += 1316 * 8 / 4;
    EXPECT_FALSE(Holds(input, "numbers"));
    EXPECT_TRUE(Holds(input, "ring"));
    input.bitRate = int64_t { 13'000 } * 1316 * 8;
    EXPECT_TRUE(Holds(input, "ring"));
    input.bitRate = int64_t { 13'200 } * 1316 * 8;
    EXPECT_FALSE(Holds(input, "ring"));
}

TEST(CalcLimits, ABitRateOfTheProxyHas31Bits)
{
    CalcInput input = Usual();
    input.lossDown = input.lossUp = 0;
    input.bitRate = 42'560'000; // x 50 and RTP headers: 2147.4 Mbit/s
    EXPECT_TRUE(Holds(input, "figures"));
    input.bitRate = 42'570'000;
    EXPECT_FALSE(Holds(input, "figures"));
}

TEST(CalcLimits, ADatagramFitsIntoAnEthernetFrame)
{
    CalcInput input = Usual();
    input.payloadBytes = 1460;
    EXPECT_TRUE(Holds(input, "datagram"));
    input.payloadBytes = 1461;
    EXPECT_FALSE(Holds(input, "datagram"));
}

} // namespace
} // namespace arqctl::calc_test
