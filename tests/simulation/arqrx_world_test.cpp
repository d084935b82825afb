// The receiver of tools/arqrx in small worlds of known faults, and whether the one who watches it would see it fail.
#include <gtest/gtest.h>

#include <array>

#include "simulation/arqrx_playout.h"
#include "simulation/time_units.h"
#include "simulation/world.h"

namespace simulation {

namespace {

// Ten receivers behind links of 20 ms that lose a tenth each way, 200 packets a second.
Config LossyConfig(uint64_t seed)
{
    Config config = Config::Plain(seed);
    config.grossMediaBitrate = 10000000;
    config.learnt = 10;
    config.arqrxPermille = 1000;
    config.arqrxLatencyUs = SECOND;
    config.packetGapUs = 5 * MS;
    config.smallestPayload = 40;
    config.largestPayload = 40;
    config.delayUs = 20 * MS;
    config.downlink.lossPermille = 100;
    config.uplink.lossPermille = 100;
    config.steadyStartUs = SECOND;
    config.wallStartUs = 1800000000 * SECOND;
    config.faultsUs = 20 * SECOND;
    config.calmUs = 6 * SECOND;
    return config;
}

PlayedTotals Play(const Config& config)
{
    World world(config);
    return world.Run().played;
}

// Someone who watches a receiver that plays what the test says.
class SimulationArqrxPlayOut : public ::testing::Test {
protected:
    // A packet of that number, as it was sent first.
    std::array<uint8_t, 16> BytesOf(uint16_t seq) const
    {
        std::array<uint8_t, 16> bytes { 0x80, 33, static_cast<uint8_t>(seq >> 8), static_cast<uint8_t>(seq) };
        bytes[15] = static_cast<uint8_t>(seq * 7);
        return bytes;
    }
    void Arrive(uint16_t seq)
    {
        m_source.Add(seq, BytesOf(seq), 0);
        m_playOut.OnArrival(seq);
    }
    void Play(uint16_t seq, uint64_t lostBefore = 0, int64_t dueUs = 0)
    {
        PlayBytes(seq, BytesOf(seq), lostBefore, dueUs);
    }
    void PlayBytes(
        uint16_t seq, const std::array<uint8_t, 16>& bytes, uint64_t lostBefore = 0, int64_t dueUs = 0)
    {
        m_playOut.OnPlayed({ 65536U + seq, dueUs, bytes, false, lostBefore, false }, m_machine.clock.NowUs());
    }

    Machine m_machine { 1, SECOND, SECOND, {} };
    ArqrxSource m_source { 10 * SECOND };
    ArqrxPlayOut m_playOut { m_machine, 0, { .latencyUs = SECOND, .ringPackets = 8 }, m_source };
};

} // namespace

TEST(SimulationArqrx, WhatATenthOfLossTakesIsRecovered)
{
    const PlayedTotals played = Play(LossyConfig(1));
    const auto packets = static_cast<double>(played.played);
    EXPECT_EQ(played.missing, played.recovered + played.lost);
    EXPECT_NEAR(static_cast<double>(played.missing) / packets, 0.1 * 20 / 26, 0.01); // none in the calm
    EXPECT_EQ(played.lost, 0U); // nine tries are left of 0.1 * 0.19^9
    EXPECT_EQ(played.restarts, 0U);
}

TEST(SimulationArqrx, AStepOfTheProxysClockRestartsPlayOutOnceForEach)
{
    Config config = LossyConfig(6);
    config.clockSteps = 1;
    config.largestStepUs = 3600 * SECOND;
    const PlayedTotals played = Play(config);
    EXPECT_EQ(played.restarts, 10U);
    EXPECT_EQ(played.steps, 10U);
}

TEST(SimulationArqrx, WithALatencyOfTwoTriesTheRestIsWhatBothFailedFor)
{
    Config config = LossyConfig(4);
    config.arqrxLatencyUs = 200 * MS;
    config.faultsUs = 60 * SECOND;
    const PlayedTotals played = Play(config);
    const double lost = static_cast<double>(played.lost) / static_cast<double>(played.played + played.lost);
    EXPECT_LT(lost, 0.1 * 0.19); // less than one try leaves
    EXPECT_GT(lost, 0.1 * 0.19 * 0.19 * 0.19 * 0.19); // more than four do
}

TEST_F(SimulationArqrxPlayOut, APacketThatIsPlayedTwiceIsSeen)
{
    Arrive(5);
    Play(5);
    EXPECT_EXIT(Play(5), ::testing::ExitedWithCode(10), "");
}

TEST_F(SimulationArqrxPlayOut, APacketThatIsLeftOutThoughItWasThereIsSeen)
{
    Arrive(5);
    Arrive(6);
    m_machine.clock.AdvanceTo(10);
    Play(5, 0, 10);
    Arrive(7);
    EXPECT_EXIT(Play(7, 1, 10), ::testing::ExitedWithCode(10), "");
}

TEST_F(SimulationArqrxPlayOut, APacketInOtherBytesThanTheSourcesIsSeen)
{
    Arrive(5);
    std::array<uint8_t, 16> bytes = BytesOf(5);
    bytes[1] = 122;
    EXPECT_EXIT(PlayBytes(5, bytes), ::testing::ExitedWithCode(10), "");
}

TEST_F(SimulationArqrxPlayOut, ALossThatIsNotToldIsSeen)
{
    Arrive(5);
    Play(5);
    Arrive(7);
    EXPECT_EXIT(Play(7, 0), ::testing::ExitedWithCode(10), "");
}

TEST_F(SimulationArqrxPlayOut, ANumberThatIsAskedForWithoutNeedIsSeen)
{
    Arrive(5);
    Arrive(8);
    m_playOut.OnAsked(6);
    EXPECT_EXIT(m_playOut.OnAsked(5), ::testing::ExitedWithCode(10), ""); // it is there
    EXPECT_EXIT(m_playOut.OnAsked(6), ::testing::ExitedWithCode(10), ""); // just asked for
    Arrive(16);
    EXPECT_EXIT(m_playOut.OnAsked(7), ::testing::ExitedWithCode(10), ""); // gone from a ring of eight
}

TEST_F(SimulationArqrxPlayOut, ALossInTheCalmThatWasNeverAskedForIsSeen)
{
    Arrive(5);
    Play(5);
    m_playOut.BeginCalm();
    m_source.Add(6, BytesOf(6), 0);
    Arrive(7);
    m_machine.clock.AdvanceTo(SECOND);
    EXPECT_EXIT(Play(7, 1, SECOND), ::testing::ExitedWithCode(11), "");
}

} // namespace simulation
