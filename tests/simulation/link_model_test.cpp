#include "simulation/link_model.h"

#include <gtest/gtest.h>

namespace simulation {

namespace {

constexpr int DATAGRAMS = 20000;

struct Tally {
    int lost = 0;
    int doubled = 0;
    int overtaken = 0; // arrive before one that was sent earlier, a microsecond apart
    int longestLoss = 0;
};

Tally SendMany(LinkModel link)
{
    Tally tally;
    int64_t latest = 0;
    int loss = 0;
    for (int i = 0; i < DATAGRAMS; ++i) {
        const LinkModel::Fate fate = link.Decide();
        tally.doubled += fate.copies == 2 ? 1 : 0;
        tally.lost += fate.copies == 0 ? 1 : 0;
        loss = fate.copies == 0 ? loss + 1 : 0;
        tally.longestLoss = std::max(tally.longestLoss, loss);
        if (fate.copies == 0)
            continue;
        const int64_t arrival = i + fate.delaysUs[0];
        tally.overtaken += arrival < latest ? 1 : 0;
        latest = std::max(latest, arrival);
    }
    return tally;
}

LinkModel Link(const LinkFaults& faults)
{
    return { faults, 1000, Random(5) };
}

} // namespace

TEST(SimulationLinkModel, WithoutFaultsEachArrivesOnceAfterTheDelayAndInOrder)
{
    const Tally tally = SendMany(Link({}));
    EXPECT_EQ(tally.lost + tally.doubled + tally.overtaken, 0);
    EXPECT_EQ(Link({}).Decide().delaysUs[0], 1000);
}

TEST(SimulationLinkModel, LosesAndDoublesTheShareThatWasAskedFor)
{
    LinkFaults faults;
    faults.lossPermille = 100;
    faults.doublePermille = 50;
    const Tally tally = SendMany(Link(faults));
    EXPECT_NEAR(tally.lost, DATAGRAMS / 10, DATAGRAMS / 50);
    EXPECT_NEAR(tally.doubled, DATAGRAMS * 9 / 10 / 20, DATAGRAMS / 50);
}

TEST(SimulationLinkModel, BurstsTakeManyInARow)
{
    LinkFaults faults;
    faults.burstPermille = 2;
    faults.burstLength = 30;
    EXPECT_GE(SendMany(Link(faults)).longestLoss, 30);
}

TEST(SimulationLinkModel, JitterLetsDatagramsOvertakeEachOther)
{
    LinkFaults faults;
    faults.jitterUs = 100;
    EXPECT_GT(SendMany(Link(faults)).overtaken, DATAGRAMS / 10);
}

TEST(SimulationLinkModel, TheCalmEndsABurst)
{
    LinkFaults faults;
    faults.burstPermille = 1000;
    faults.burstLength = 1000;
    LinkModel link = Link(faults);
    EXPECT_EQ(link.Decide().copies, 0);
    link.EndFaults();
    EXPECT_EQ(link.Decide().copies, 1);
}

} // namespace simulation
