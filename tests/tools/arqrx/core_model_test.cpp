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
    for (uint64_t seed = 1; seed <= 150; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Model model(AnyPlan(seed));
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
    }
}

} // namespace
} // namespace arqrx::test
