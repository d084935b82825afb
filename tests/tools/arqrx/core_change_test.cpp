#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tools/arqrx/core_model.h"

// The stream changes, or only seems to.

namespace arqrx::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// Packets of Script::Even from `first` to `last`, changed by `change`.
template <typename Change>
void ComeRow(Script& script, int64_t first, int64_t last, const Change& change)
{
    for (int64_t number = first; number <= last; ++number) {
        Media media = Script::Even(number);
        change(media);
        script.Come(media, number * MS);
    }
}

void ComeRow(Script& script, int64_t first, int64_t last)
{
    ComeRow(script, first, last, [](Media&) {});
}

std::vector<size_t> RestartsOf(const Script& script)
{
    std::vector<size_t> places;
    for (size_t i = 0; i < script.played.size(); ++i) {
        if (script.played[i].isRestart)
            places.push_back(i);
    }
    return places;
}

TEST(ArqrxChange, AnotherSourceRestartsPlayOutOnceAndLosesNothing)
{
    Script script;
    ComeRow(script, 0, 99);
    ComeRow(script, 100, 199, [](Media& media) {
        media.ssrc = 2;
        media.seq = static_cast<uint16_t>(media.seq - 99); // begins with 1
    });
    script.RunUntil(SECOND);
    EXPECT_EQ(script.Counted().restarts, 1U);
    EXPECT_EQ(script.Counted().strangers, 0U);
    EXPECT_EQ(script.Counted().missing, 0U);
    ASSERT_EQ(script.played.size(), 200U);
    EXPECT_THAT(RestartsOf(script), ElementsAre(100));
    EXPECT_EQ(script.played[100].lostBefore, 0U);
    EXPECT_EQ(script.played[100].number & 0xFFFF, 1U);
    EXPECT_GT(script.played[100].number, script.played[99].number);
    EXPECT_EQ(script.played[150].dueUs, 750 * MS) << "the clock is the same";
}

// The last packets of what was before come behind the first ones of what is now.
TEST(ArqrxChange, PacketsThatTheChangeOvertookAreLateAndNoChangeBack)
{
    for (const int jump : { 3100, 20'000, -200, -20'000 }) {
        for (const uint32_t ssrc : { Script::Even(0).ssrc, 2U }) {
            SCOPED_TRACE(testing::Message() << jump << " SSRC " << ssrc);
            const auto change = [jump, ssrc](Media& media) {
                media.seq = static_cast<uint16_t>(media.seq + jump);
                media.ssrc = ssrc;
            };
            Script script;
            ComeRow(script, 0, 89);
            ComeRow(script, 100, 109, change);
            for (int64_t number = 90; number < 100; ++number)
                script.Come(Script::Even(number), 110 * MS);
            ComeRow(script, 111, 199, change);
            script.RunUntil(SECOND);
            EXPECT_EQ(script.Counted().restarts, 1U);
            EXPECT_EQ(script.Counted().late, 10U);
            EXPECT_EQ(script.Counted().reordered, 10U);
            EXPECT_EQ(script.Counted().strangers, 0U);
            EXPECT_EQ(script.Counted().received, 199U);
            EXPECT_EQ(script.Counted().missing, 1U) << "110 did not come";
            EXPECT_EQ(script.played.size(), 189U);
            EXPECT_THAT(RestartsOf(script), ElementsAre(90));
        }
    }
}

TEST(ArqrxChange, ASourceThatComesBackAfterTheChangeIsAnotherChange)
{
    Script script;
    ComeRow(script, 0, 89);
    ComeRow(script, 90, 99, [](Media& media) { media.ssrc = 2; });
    ComeRow(script, 100, 199);
    script.RunUntil(SECOND);
    EXPECT_EQ(script.Counted().restarts, 2U);
    EXPECT_EQ(script.Counted().late, 0U);
    EXPECT_EQ(script.played.size(), 200U);
    EXPECT_THAT(RestartsOf(script), ElementsAre(90, 100));
}

TEST(ArqrxChange, AJumpOfNumbersRestartsPlayOutForwardAndBack)
{
    for (const int jump : { 3065, 20'000, 32'767, -70, -3000, -20'000 }) {
        SCOPED_TRACE(jump);
        Script script;
        ComeRow(script, 0, 99);
        ComeRow(
            script, 100, 199, [jump](Media& media) { media.seq = static_cast<uint16_t>(media.seq + jump); });
        script.RunUntil(SECOND);
        EXPECT_EQ(script.Counted().restarts, 1U);
        EXPECT_EQ(script.Counted().missing, 0U);
        EXPECT_EQ(script.played.size(), 200U);
        EXPECT_THAT(RestartsOf(script), ElementsAre(100));
    }
}

TEST(ArqrxChange, AJumpThatMayBeAGapIsAGap)
{
    for (const int jump : { 1, 64, 1000, 2990 }) {
        SCOPED_TRACE(jump);
        Script script;
        ComeRow(script, 0, 99);
        ComeRow(
            script, 100, 199, [jump](Media& media) { media.seq = static_cast<uint16_t>(media.seq + jump); });
        script.RunUntil(SECOND);
        EXPECT_EQ(script.Counted().restarts, 0U);
        EXPECT_EQ(script.Counted().lost, static_cast<uint64_t>(jump));
        EXPECT_EQ(script.played.size(), 200U);
    }
}

TEST(ArqrxChange, OneStrayPacketDoesNothing)
{
    Script script;
    ComeRow(script, 0, 49);
    Media stray = Script::Even(20'000);
    script.Come(stray, 49 * MS);
    stray.ssrc = 9;
    stray.seq = 51;
    script.Come(stray, 49 * MS);
    ComeRow(script, 50, 99);
    script.RunUntil(SECOND);
    EXPECT_EQ(script.Counted().restarts, 0U);
    EXPECT_EQ(script.Counted().strangers, 2U);
    EXPECT_EQ(script.Counted().received, 100U);
    EXPECT_EQ(script.played.size(), 100U);
}

TEST(ArqrxChange, AfterJoiningAnewOnePacketOfAnotherSourceIsEnough)
{
    Script script;
    ComeRow(script, 0, 9);
    script.RunUntil(4 * SECOND);
    ASSERT_EQ(script.Counted().rejoins, 1U);
    Media media = Script::Even(4001);
    media.ssrc = 2;
    media.seq = 1;
    script.Come(media, 4001 * MS);
    EXPECT_EQ(script.Counted().restarts, 1U);
    media.ssrc = 3;
    script.Come(media, 4002 * MS);
    EXPECT_EQ(script.Counted().restarts, 1U) << "but only once";
    script.RunUntil(5 * SECOND);
    EXPECT_EQ(script.played.size(), 11U);
}

TEST(ArqrxChange, AfterJoiningAnewToTheSameStreamOneStrayDoesNothing)
{
    Script script;
    ComeRow(script, 0, 9);
    script.RunUntil(4 * SECOND);
    ASSERT_EQ(script.Counted().rejoins, 1U);
    ComeRow(
        script, 4001, 5500, [](Media& media) { media.seq = static_cast<uint16_t>(media.seq - 4001 + 10); });
    Media stray = Script::Even(5501);
    stray.ssrc = 2;
    script.Come(stray, 5501 * MS);
    EXPECT_EQ(script.Counted().restarts, 0U);
}

TEST(ArqrxChange, ADoubledStrayPacketDoesNothing)
{
    Script script;
    ComeRow(script, 0, 49);
    script.Come(Script::Even(20'000), 49 * MS);
    script.Come(Script::Even(20'000), 49 * MS);
    ComeRow(script, 50, 99);
    script.RunUntil(SECOND);
    EXPECT_EQ(script.Counted().restarts, 0U);
    EXPECT_EQ(script.played.size(), 100U);
}

TEST(ArqrxChange, AResendOfAnotherSourceOnlyFillsItsGap)
{
    Script script;
    ComeRow(script, 0, 49);
    ComeRow(script, 51, 99);
    Media again = Script::ResendOf(50);
    again.ssrc = 77;
    script.Come(again, 100 * MS);
    again.seq = 40'000;
    script.Come(again, 101 * MS);
    again.seq = 40'001;
    script.Come(again, 102 * MS);
    ComeRow(script, 103, 110, [](Media& media) { media.seq = static_cast<uint16_t>(media.seq - 3); });
    script.RunUntil(SECOND);
    EXPECT_EQ(script.Counted().recovered, 1U);
    EXPECT_EQ(script.Counted().restarts, 0U);
    EXPECT_EQ(script.Counted().late, 2U) << "no gap there";
    EXPECT_EQ(script.played.size(), 108U);
}

TEST(ArqrxChange, ADamagedResendDoesNotFillTheGap)
{
    Script script;
    ComeRow(script, 0, 49);
    ComeRow(script, 51, 99);
    Media again = Script::ResendOf(50);
    again.timestamp += 90'000;
    script.Come(again, 100 * MS);
    EXPECT_EQ(script.Counted().recovered, 0U);
    script.ComeAgain(50, 101 * MS);
    EXPECT_EQ(script.Counted().recovered, 1U);
}

TEST(ArqrxChange, AnOutageCountsEveryNumberAndAsksForThoseInTheRing)
{
    Settings settings;
    settings.ringPackets = 1024;
    settings.latencyUs = 2 * SECOND;
    Script script(settings);
    ComeRow(script, 0, 99);
    ComeRow(script, 5100, 5120);
    script.RunUntil(5200 * MS);
    EXPECT_EQ(script.Counted().restarts, 0U);
    EXPECT_EQ(script.Counted().missing, 5000U);
    EXPECT_EQ(script.Counted().lost, 5000U - 1023U) << "those that the ring cannot hold, at once";
    EXPECT_EQ(script.Counted().waiting, 1023U);
    const auto asked = script.AllAsked();
    ASSERT_FALSE(asked.empty());
    for (const auto& [number, atUs] : asked)
        EXPECT_GT(number, 5100 - 1024);
    script.RunUntil(10 * SECOND);
    EXPECT_EQ(script.Counted().lost, 5000U);
    EXPECT_EQ(script.played.size(), 121U);
    EXPECT_EQ(script.played[100].lostBefore, 5000U);
    EXPECT_FALSE(script.isIdentityBroken);
}

TEST(ArqrxChange, AfterMinutesOfSilenceOfTheSourceTheNextNumberGoesOn)
{
    Script script;
    ComeRow(script, 0, 99);
    ComeRow(script, 600'000, 600'099,
        [](Media& media) { media.seq = static_cast<uint16_t>(media.seq - 600'000 + 100); });
    script.RunUntil(700 * SECOND);
    EXPECT_EQ(script.Counted().restarts, 0U);
    EXPECT_EQ(script.Counted().missing, 0U);
    EXPECT_EQ(script.played.size(), 200U);
}

TEST(ArqrxChange, AfterMinutesWithoutALineTheNumbersTellNothingAndPlayOutRestarts)
{
    for (const int64_t first : { 40'000, 100'000, 600'000 }) {
        SCOPED_TRACE(first);
        Script script;
        ComeRow(script, 0, 99);
        ComeRow(script, first, first + 99);
        script.RunUntil(700 * SECOND);
        EXPECT_EQ(script.Counted().restarts, 1U);
        EXPECT_EQ(script.Counted().missing, 0U);
        EXPECT_EQ(script.played.size(), 200U);
        EXPECT_EQ(script.played.back().dueUs, (first + 99 + 600) * MS);
    }
}

TEST(ArqrxChange, AClockThatStepsBackWhileTheSourceIsSilentIsNoticed)
{
    Script script;
    ComeRow(script, 0, 999);
    for (int64_t number = 1000; number < 6000; ++number) {
        Media media = Script::Even(number);
        media.timestamp += 15 * 90'000; // 20 s later on our clock
        script.Come(media, number * MS + 20 * SECOND);
    }
    script.RunUntil(60 * SECOND);
    EXPECT_EQ(script.Counted().restarts, 1U);
    EXPECT_EQ(script.played.size(), 6000U);
    EXPECT_EQ(script.played.back().dueUs, 5999 * MS + 20 * SECOND + 600 * MS);
}

TEST(ArqrxChange, AQueueOnTheWayThatEmptiesIsNoStep)
{
    // All that comes waited 400 ms, from the beginning on; then the queue empties at ten times the rate.
    Script script;
    int64_t number = 0;
    for (; number < 3000; ++number)
        script.Come(Script::Even(number), (number + 400) * MS);
    for (int64_t atUs = 3400 * MS; atUs >= number * MS; atUs += 100, ++number)
        script.Come(Script::Even(number), atUs);
    for (; number < 6000; ++number)
        script.ComeEven(number);
    script.RunUntil(8 * SECOND);
    EXPECT_EQ(script.Counted().restarts, 0U);
    EXPECT_EQ(script.Counted().missing, 0U);
    EXPECT_EQ(script.played.size(), 6000U);
}

TEST(ArqrxChange, DueTimesNeverGoBackThoughTimestampsDo)
{
    Script script;
    for (int number = 0; number < 100; ++number) {
        Media media = Script::Even(number);
        media.timestamp
            -= number % 2 == 0 ? 0 : 50 * 90; // the source's packets changed order before the proxy
        script.Come(media, number * MS);
    }
    script.RunUntil(SECOND);
    ASSERT_EQ(script.played.size(), 100U);
    for (size_t i = 1; i < script.played.size(); ++i)
        EXPECT_GE(script.played[i].dueUs, script.played[i - 1].dueUs);
    EXPECT_EQ(script.Counted().restarts, 0U);
}

TEST(ArqrxChange, NumbersOfTheSourceBeforeAreNotAskedForAnyMore)
{
    Script script;
    ComeRow(script, 0, 49);
    ComeRow(script, 52, 59);
    const size_t asked = script.AllAsked().size();
    EXPECT_EQ(asked, 2U);
    ComeRow(script, 60, 400, [](Media& media) { media.ssrc = 2; });
    EXPECT_EQ(script.AllAsked().size(), asked);
    script.ComeAgain(50, 401 * MS);
    EXPECT_EQ(script.Counted().late, 1U) << "nor taken for one of the new source";
    script.RunUntil(2 * SECOND);
    EXPECT_EQ(script.Counted().lost, 2U);
    EXPECT_EQ(script.played.size(), 399U);
}

TEST(ArqrxChange, TwoStraysOfTwoSourcesDoNothing)
{
    Script script;
    ComeRow(script, 0, 49);
    for (const uint32_t ssrc : { 8U, 9U }) {
        Media stray = Script::Even(20'000 + ssrc);
        stray.ssrc = ssrc;
        script.Come(stray, 49 * MS);
    }
    ComeRow(script, 50, 99);
    EXPECT_EQ(script.Counted().restarts, 0U);
    EXPECT_EQ(script.Counted().strangers, 2U);
}

TEST(ArqrxChange, ASilentMinuteDoesNotMakeGapsWaitLonger)
{
    Script script;
    ComeRow(script, 0, 99);
    ComeRow(script, 60'000, 60'009,
        [](Media& media) { media.seq = static_cast<uint16_t>(media.seq - 60'000 + 100); });
    EXPECT_LE(script.Counted().toleranceUs, MS);
}

// The source pauses for 3 s between two bursts; of the second one some are overtaken, some come again.
TEST(ArqrxChange, WhatIsMissingBehindAPauseIsTakenWhereverInThePauseItIsFrom)
{
    for (const int64_t pauseMs : { 10, 2990 }) {
        SCOPED_TRACE(pauseMs);
        Script script;
        ComeRow(script, 0, 99);
        const auto late = [pauseMs](int number) {
            Media media = Script::Even(number);
            media.timestamp += static_cast<uint32_t>(number < 105 ? pauseMs * 90 : 3000 * 90);
            return media;
        };
        script.Come(late(110), 3110 * MS);
        script.RunUntil(3112 * MS);
        for (const int number : { 103, 102, 101, 100, 106, 105, 104 }) {
            Media media = late(number);
            media.payloadType = number % 2 == 0 ? 33 : 122;
            script.Come(media, 3115 * MS);
        }
        script.RunUntil(3130 * MS);
        EXPECT_EQ(script.Counted().strangers, 0U);
        EXPECT_EQ(script.Counted().restarts, 0U);
        std::set<uint16_t> asked;
        for (const auto& [number, atUs] : script.AllAsked()) {
            if (atUs > 3115 * MS)
                asked.insert(number);
        }
        EXPECT_THAT(asked, IsEmpty());
        script.RunUntil(5 * SECOND);
        EXPECT_EQ(script.Counted().lost, pauseMs == 10 ? 3U + 3U : 3U);
    }
}

TEST(ArqrxChange, WhatComesBeforeTheFirstNumberIsLate)
{
    Script script;
    for (const int number : { 5, 3, 4, 6, 7 })
        script.Come(Script::Even(number), 10 * MS);
    script.RunUntil(SECOND);
    EXPECT_EQ(script.Counted().restarts, 0U);
    EXPECT_EQ(script.Counted().late, 2U);
    EXPECT_THAT(script.PlayedNumbers(), ElementsAre(5, 6, 7));
}

TEST(ArqrxChange, AResendBeforeAnyFirstSendingIsLate)
{
    Script script;
    script.ComeAgain(7, MS);
    script.ComeEven(8);
    script.RunUntil(SECOND);
    EXPECT_EQ(script.Counted().late, 1U);
    EXPECT_THAT(script.PlayedNumbers(), ElementsAre(8));
}

TEST(ArqrxChange, ManyChangesAtOnceAreRefusedAndForgotten)
{
    Script script;
    for (int64_t number = 0; number < 200; ++number) {
        Media media = Script::Even(number);
        media.ssrc = static_cast<uint32_t>(number / 2);
        script.Come(media, number * MS);
    }
    EXPECT_EQ(script.Counted().restarts, 7U) << "eight stretches at a time";
    ComeRow(script, 200, 1500, [](Media& media) { media.ssrc = 500; });
    script.RunUntil(5 * SECOND);
    EXPECT_FALSE(script.isIdentityBroken);
    EXPECT_EQ(script.played.back().number & 0xFFFF, 1500U);
}

TEST(ArqrxChange, GarbageIsCountedAndForgotten)
{
    Script script;
    const std::vector<std::vector<uint8_t>> garbage {
        {},
        { 0x80 },
        std::vector<uint8_t>(11, 0x80),
        std::vector<uint8_t>(12, 0x40),
        std::vector<uint8_t>(1601, 0x80),
        { 0xDE, 0xAD, 0xBE, 0xEF },
        { 0xDE, 0xAD, 0xBE, 0xEF, 0xBA, 0xBE, 0xFA, 0xCE, 0 },
        { 0, 0, 0xAD, 0xE2 },
        { 0, 0, 0xAD, 0xE2, 1, 2, 3, 4, 5, 6 },
    };
    for (const std::vector<uint8_t>& bytes : garbage)
        script.Come(bytes, MS);
    EXPECT_EQ(script.Counted().strangers, garbage.size());
    EXPECT_EQ(script.Counted().received, 0U);
    script.RunUntil(SECOND);
    EXPECT_THAT(script.played, IsEmpty());
}

TEST(ArqrxChange, TheLongestAndTheShortestMediaArePlayed)
{
    Script script;
    Media media = Script::Even(0);
    media.payload.clear();
    script.Come(media, 0);
    media = Script::Even(1);
    media.payload.assign(1588, 'x');
    script.Come(media, MS);
    script.RunUntil(SECOND);
    ASSERT_EQ(script.played.size(), 2U);
    EXPECT_EQ(script.played[0].datagram.size(), 12U);
    EXPECT_EQ(script.played[1].datagram, media.Bytes());
}

TEST(ArqrxChange, RestoresTheTypeThatFirstSendingsHaveAndKeepsTheMarker)
{
    Script script;
    for (const int number : { 0, 1, 4 }) {
        Media media = Script::Even(number);
        media.payloadType = 96;
        script.Come(media, number * MS);
    }
    script.ComeAgain(2, 10 * MS);
    Media again = Script::ResendOf(3);
    again.payloadType |= 0x80;
    script.Come(again, 10 * MS);
    script.RunUntil(SECOND);
    ASSERT_EQ(script.played.size(), 5U);
    EXPECT_EQ(script.played[2].datagram[1], 96);
    EXPECT_EQ(script.played[3].datagram[1], 0x80 | 96);
}

} // namespace
} // namespace arqrx::test
