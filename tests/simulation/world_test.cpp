#include "simulation/world.h"

#include <gtest/gtest.h>

namespace simulation {

namespace {

RunResult RunSeed(uint64_t seed)
{
    const Config config(seed);
    World world(config);
    return world.Run();
}

// The first seed from `seed` on whose run is short.
uint64_t ShortSeed(uint64_t seed)
{
    while (Config(seed).kind != Config::Kind::Short)
        ++seed;
    return seed;
}

} // namespace

TEST(SimulationWorld, ASeedIsTheSameRunAloneAndBehindOthers)
{
    const uint64_t first = ShortSeed(1);
    const uint64_t second = ShortSeed(first + 1);
    const RunResult alone = RunSeed(second);
    EXPECT_NE(RunSeed(first).hash, alone.hash);
    const RunResult behind = RunSeed(second);
    EXPECT_EQ(behind.hash, alone.hash);
    EXPECT_EQ(behind.events, alone.events);
    EXPECT_GT(alone.inputs, 300U);
    EXPECT_GT(alone.virtualUs, 25000000);
}

TEST(SimulationWorld, OneSeedIsOneConfiguration)
{
    const Config config(17);
    const Config again(17);
    EXPECT_EQ(config.wallStartUs, again.wallStartUs);
    EXPECT_EQ(config.packetGapUs, again.packetGapUs);
    EXPECT_NE(config.wallStartUs, Config(18).wallStartUs);
}

} // namespace simulation
