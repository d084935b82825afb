#include "arqctl/core/loss_watch.h"

#include <gtest/gtest.h>

#include "arqctl/core/loss_texts.h"

namespace arqctl::loss_watch_tests {

namespace {

constexpr uint64_t PERIOD = 101;
constexpr int64_t SECOND = 1'000'000;

// A proxy at rest, seen after every step.
class Proxy {
public:
    explicit Proxy(std::vector<std::string> receivers, int fanOut = -2) : m_fanOut(fanOut)
    {
        m_now.receivers = std::move(receivers);
        m_now.receivedPackets = 5000;
        m_now.sentPackets = 70;
        Look();
    }

    // `packets` come, and so many datagrams leave.
    void Step(uint64_t packets, uint64_t sent)
    {
        m_now.receivedPackets += packets;
        m_now.sentPackets += sent;
        Look();
    }

    void Look()
    {
        m_watch.See(m_now, m_nowUs);
        m_watch.TakeAtRest(m_now, m_fanOut == -2 ? static_cast<int>(m_now.receivers.size()) : m_fanOut);
    }

    void Pass(int64_t us) { m_nowUs += us; }
    Statistics& Now() { return m_now; }
    LossFinding Find(bool isLast = false) const { return m_watch.Judge(m_nowUs, isLast); }

private:
    Statistics m_now;
    LossWatch m_watch { PERIOD };
    const int m_fanOut; // -2: known to be the receivers
    int64_t m_nowUs = 0;
};

TEST(LossWatch, TwoBurstsThatAreMissingMeanOn)
{
    Proxy proxy({ "10.0.0.1", "10.0.0.2" });
    proxy.Step(10, 18);
    EXPECT_EQ(proxy.Find().state, LossState::Unknown) << "one may be an error of counting";
    EXPECT_EQ(proxy.Find().doubt, LossDoubt::None) << "look on";
    proxy.Step(10, 16);
    const LossFinding finding = proxy.Find();
    EXPECT_EQ(finding.state, LossState::On);
    EXPECT_EQ(finding.packets, 20U);
    EXPECT_EQ(finding.withheld, 3U);
    EXPECT_EQ(LossText(finding), "on: 3 of 20 packets were withheld");
}

TEST(LossWatch, WhatIsFetchedAgainLaterWasWithheldAllTheSame)
{
    Proxy proxy({ "10.0.0.1" });
    for (int i = 0; i < 2; ++i) {
        proxy.Step(10, 9);
        proxy.Step(0, 1);
    }
    EXPECT_EQ(proxy.Find().state, LossState::On);
    EXPECT_EQ(proxy.Find().withheld, 2U);
}

TEST(LossWatch, NothingMissingOverEightPeriodsMeansOff)
{
    Proxy proxy({ "10.0.0.1", "10.0.0.2" });
    proxy.Step(8 * PERIOD - 1, 2 * (8 * PERIOD - 1));
    EXPECT_EQ(proxy.Find().state, LossState::Unknown);
    proxy.Step(1, 2);
    EXPECT_EQ(proxy.Find().state, LossState::Off);
    EXPECT_EQ(LossText(proxy.Find()), "off: none of 808 packets was withheld");
}

TEST(LossWatch, AtTheEndTwoPeriodsAreEnoughForOff)
{
    Proxy proxy({ "10.0.0.1" });
    proxy.Step(2 * PERIOD - 1, 2 * PERIOD - 1);
    EXPECT_EQ(proxy.Find(true).doubt, LossDoubt::TooFew);
    EXPECT_EQ(LossText(proxy.Find(true)),
        "not known: only 201 packets came, and the settings let more pass between two bursts");
    proxy.Step(1, 1);
    EXPECT_EQ(proxy.Find(true).state, LossState::Off);
}

TEST(LossWatch, ASingleBurstIsNeitherOnNorOff)
{
    Proxy proxy({ "10.0.0.1" });
    proxy.Step(10, 9);
    proxy.Step(100 * PERIOD, 100 * PERIOD);
    EXPECT_EQ(proxy.Find(true).state, LossState::Unknown);
}

TEST(LossWatch, ResendsAreNoSignOfAnything)
{
    Proxy proxy({ "10.0.0.1" });
    for (uint64_t i = 0; i < 8; ++i)
        proxy.Step(PERIOD, PERIOD + i);
    EXPECT_EQ(proxy.Find().state, LossState::Off);
}

TEST(LossWatch, AcrossAChangeOfReceiversNothingIsCompared)
{
    Proxy proxy({ "10.0.0.1", "10.0.0.2" });
    for (int i = 0; i < 4; ++i) {
        proxy.Now().receivers[1] = "10.0.0." + std::to_string(i + 3);
        proxy.Step(10, 15);
    }
    EXPECT_EQ(proxy.Find().packets, 0U);
    EXPECT_NE(proxy.Find().state, LossState::On);
    proxy.Now().receivers.pop_back();
    proxy.Step(10, 15);
    proxy.Step(10, 10);
    EXPECT_EQ(proxy.Find().packets, 10U);
}

TEST(LossWatch, AcrossAResetOrARestartNothingIsCompared)
{
    Proxy proxy({ "10.0.0.1" });
    for (int i = 0; i < 4; ++i) {
        proxy.Step(100, 100);
        proxy.Now().receivedPackets = 50;
        proxy.Step(0, 0);
        proxy.Now().sentPackets = 3;
        proxy.Step(50, 50);
    }
    EXPECT_EQ(proxy.Find().packets, 400U);
    EXPECT_NE(proxy.Find().state, LossState::On);
}

TEST(LossWatch, WithoutAReceiverItIsNotKnownAtOnce)
{
    const Proxy proxy({});
    EXPECT_EQ(proxy.Find().doubt, LossDoubt::NoReceiver);
    EXPECT_EQ(LossText(proxy.Find()), "not known: the proxy has no receiver");
}

TEST(LossWatch, WithoutInputItIsNotKnownAfterThreeSeconds)
{
    Proxy proxy({ "10.0.0.1" });
    proxy.Pass(2 * SECOND);
    proxy.Step(1, 1);
    proxy.Pass(3 * SECOND - 1);
    EXPECT_EQ(proxy.Find().doubt, LossDoubt::None);
    proxy.Pass(1);
    EXPECT_EQ(proxy.Find().doubt, LossDoubt::NoInput);
    EXPECT_EQ(LossText(proxy.Find()), "not known: there is no input");
}

TEST(LossWatch, AProxyThatIsNeverAtRestIsTold)
{
    LossWatch watch(PERIOD);
    watch.See({}, 0);
    EXPECT_EQ(watch.Judge(SECOND, false).doubt, LossDoubt::None);
    EXPECT_EQ(watch.Judge(SECOND, true).doubt, LossDoubt::Busy);
    Statistics first;
    first.receivers = { "10.0.0.1" };
    watch.TakeAtRest(first, 1);
    EXPECT_EQ(watch.Judge(SECOND, true).doubt, LossDoubt::TooFew);
    Statistics later;
    later.receivedPackets = 700;
    watch.See(later, SECOND);
    EXPECT_EQ(watch.Judge(SECOND, true).doubt, LossDoubt::Busy) << "at rest once, and then no more";
}

TEST(LossWatch, OfAGroupEachPacketIsDueOnce)
{
    Proxy proxy({ "10.0.0.1", "10.0.0.2", "10.0.0.3" }, 1);
    proxy.Step(8 * PERIOD, 8 * PERIOD);
    EXPECT_EQ(proxy.Find().state, LossState::Off);
}

TEST(LossWatch, WhatMayBeAGroupIsNotCalledWithheld)
{
    Proxy proxy({ "10.0.0.1", "10.0.0.2" }, -1);
    proxy.Step(10, 10);
    proxy.Step(10, 10);
    EXPECT_EQ(proxy.Find().doubt, LossDoubt::MayBeGroup);
    proxy.Step(10, 11);
    EXPECT_EQ(proxy.Find().state, LossState::On) << "a group gets no more than one";
}

TEST(LossWatch, ASingleReceiverIsNoGroupThatMatters)
{
    Proxy proxy({ "10.0.0.1" }, -1);
    proxy.Step(10, 9);
    proxy.Step(10, 9);
    EXPECT_EQ(proxy.Find().state, LossState::On);
}

TEST(LossWatch, CountsThatNoProxyHasAreLeftOut)
{
    Proxy proxy({ "10.0.0.1", "10.0.0.2" });
    proxy.Step(1ULL << 63, 0);
    proxy.Step(1'000'000'001, 0);
    EXPECT_EQ(proxy.Find().packets, 0U);
    proxy.Step(1'000'000'000, 0);
    EXPECT_EQ(proxy.Find().withheld, 1'000'000'000U);
}

} // namespace

} // namespace arqctl::loss_watch_tests
