#include "replicator/stream_life.h"

#include <arpa/inet.h>

#include <gtest/gtest.h>

namespace {

using VisitVerdict = StreamLife::VisitVerdict;

constexpr bool ALIVE = true;
constexpr bool NOT_ALIVE = false;
const uint16_t PORT = htons(5000);
const uint16_t OTHER_PORT = htons(5001);

// A receiver whose first ping came at `nowMs` and whose media have started.
StreamLife Started(uint32_t nowMs)
{
    StreamLife life;
    (void)life.OnPing(PORT, nowMs);
    life.OnStarted(PORT);
    return life;
}

TEST(StreamLife, TheFirstPingStartsMediaOnItsPort)
{
    StreamLife life;
    const StreamLife::PingVerdict verdict = life.OnPing(PORT, 1);
    EXPECT_TRUE(verdict.start);
    EXPECT_FALSE(verdict.moved);
    EXPECT_FALSE(life.HasStarted()) << "the caller has not carried it out yet";
    life.OnStarted(PORT);
    EXPECT_TRUE(life.HasStarted());
    EXPECT_EQ(life.MediaPortNet(), PORT);
    EXPECT_EQ(life.PingCount(), 1U);
}

TEST(StreamLife, FurtherPingsFromThatPortAreOnlyCounted)
{
    StreamLife life = Started(1);
    const StreamLife::PingVerdict verdict = life.OnPing(PORT, 2);
    EXPECT_FALSE(verdict.start);
    EXPECT_FALSE(verdict.moved);
    EXPECT_EQ(life.PingCount(), 2U);
}

TEST(StreamLife, APingFromAnotherPortMovesAndStartsAgainInOne)
{
    StreamLife life = Started(1);
    const StreamLife::PingVerdict verdict = life.OnPing(OTHER_PORT, 2);
    EXPECT_TRUE(verdict.moved);
    EXPECT_TRUE(verdict.start);
    EXPECT_EQ(life.MediaPortNet(), PORT) << "until the media have started there";
    life.OnStarted(OTHER_PORT);
    EXPECT_EQ(life.MediaPortNet(), OTHER_PORT);
}

TEST(StreamLife, AStartThatWasNotCarriedOutIsAskedForByTheNextPing)
{
    StreamLife life;
    (void)life.OnPing(PORT, 1);
    const StreamLife::PingVerdict verdict = life.OnPing(PORT, 2);
    EXPECT_TRUE(verdict.start);
    EXPECT_FALSE(verdict.moved) << "it was nowhere yet";
}

TEST(StreamLife, AConfiguredStreamCountsPingsAndNothingElse)
{
    StreamLife life;
    life.MakeStatic();
    const StreamLife::PingVerdict verdict = life.OnPing(PORT, 1);
    EXPECT_FALSE(verdict.start);
    EXPECT_FALSE(verdict.moved);
    EXPECT_EQ(life.PingCount(), 1U);
    EXPECT_EQ(life.OnVisit(ALIVE, 1000000), VisitVerdict::Stays);
    EXPECT_EQ(life.PingCount(), 1U) << "never looked at";
}

TEST(StreamLife, FiveSecondsOfSilenceEndAStreamAndOneMillisecondLessDoesNot)
{
    StreamLife life = Started(1000);
    EXPECT_EQ(life.OnVisit(ALIVE, 1000), VisitVerdict::Stays) << "its first ping was just counted";
    EXPECT_EQ(life.OnVisit(ALIVE, 5999), VisitVerdict::Stays);
    EXPECT_EQ(life.OnVisit(ALIVE, 6000), VisitVerdict::Ends);
}

TEST(StreamLife, TheSilenceIsMeasuredAcrossAWrapOfTheClock)
{
    constexpr uint32_t BEFORE_WRAP = 0xFFFFFFFFU - 999; // 1000 ms before 0
    StreamLife life = Started(BEFORE_WRAP);
    (void)life.OnVisit(ALIVE, BEFORE_WRAP);
    EXPECT_EQ(life.OnVisit(ALIVE, 3999), VisitVerdict::Stays);
    EXPECT_EQ(life.OnVisit(ALIVE, 4000), VisitVerdict::Ends);
}

// Looks come 5 s apart, at any offset to the pings.
TEST(StreamLife, PingsFourPointNineSecondsApartKeepAStreamForEver)
{
    for (uint32_t offsetMs = 0; offsetMs < 5000; offsetMs += 100) {
        StreamLife life = Started(0);
        uint32_t nextPingMs = 4900;
        for (uint32_t visitMs = offsetMs; visitMs < 500000; visitMs += 5000) {
            for (; nextPingMs < visitMs; nextPingMs += 4900)
                (void)life.OnPing(PORT, nextPingMs);
            ASSERT_EQ(life.OnVisit(ALIVE, visitMs), VisitVerdict::Stays) << offsetMs << " " << visitMs;
        }
    }
}

TEST(StreamLife, SilenceEndsAStreamAfterFiveToTenSecondsWhereverItStandsInTheRound)
{
    for (uint32_t offsetMs = 0; offsetMs < 5000; offsetMs += 100) {
        StreamLife life = Started(0);
        uint32_t visitMs = offsetMs;
        while (life.OnVisit(ALIVE, visitMs) != VisitVerdict::Ends)
            visitMs += 5000;
        EXPECT_GE(visitMs, 5000U);
        EXPECT_LT(visitMs, 10000U) << offsetMs;
    }
}

TEST(StreamLife, AStreamThatIsNotAliveResumesWhenItHasPinged)
{
    StreamLife life = Started(0);
    EXPECT_EQ(life.OnVisit(NOT_ALIVE, 100), VisitVerdict::Resumes);
    EXPECT_EQ(life.PingCount(), 0U);
    EXPECT_EQ(life.OnVisit(NOT_ALIVE, 200), VisitVerdict::Stays) << "no ping since";
}

TEST(StreamLife, AStreamWhoseMediaNeverStartedDoesNotResumeAndEndsWhenItFallsSilent)
{
    StreamLife life;
    (void)life.OnPing(PORT, 0);
    EXPECT_EQ(life.OnVisit(NOT_ALIVE, 100), VisitVerdict::Stays);
    EXPECT_EQ(life.OnVisit(NOT_ALIVE, 5100), VisitVerdict::Ends);
}

TEST(StreamLife, ItsPlaceIsKept)
{
    StreamLife life;
    life.TakePlace(49);
    EXPECT_EQ(life.Place(), 49);
}

TEST(SleepBeforeVisit, LooksComeOnceInOneHundredMillisecondsHoweverLongEachTakes)
{
    uint32_t dueMs = 1000;
    EXPECT_EQ(SleepBeforeVisit(&dueMs, 1000), 100U);
    EXPECT_EQ(SleepBeforeVisit(&dueMs, 1130), 70U);
    EXPECT_EQ(SleepBeforeVisit(&dueMs, 1300), 0U);
    EXPECT_EQ(SleepBeforeVisit(&dueMs, 1450), 0U);
    EXPECT_EQ(SleepBeforeVisit(&dueMs, 1460), 40U) << "the 50 ms are made up for";
}

TEST(SleepBeforeVisit, AfterAStallTheRhythmBeginsAnew)
{
    uint32_t dueMs = 1000;
    EXPECT_EQ(SleepBeforeVisit(&dueMs, 9000), 0U);
    EXPECT_EQ(SleepBeforeVisit(&dueMs, 9000), 100U) << "no burst of looks makes up for the stall";
}

} // namespace
