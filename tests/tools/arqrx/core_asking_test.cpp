#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tools/arqrx/core_script.h"

// When a gap counts as missing, when it is asked for, and in which request.

namespace arqrx::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

// The times at which one number was asked for.
std::vector<int64_t> TimesAsked(const Script& script, uint16_t wanted, size_t tagBytes = 0)
{
    std::vector<int64_t> times;
    for (const auto& [number, atUs] : script.AllAsked(tagBytes)) {
        if (number == wanted)
            times.push_back(atUs);
    }
    return times;
}

std::vector<Sent> RequestsOf(const Script& script, size_t tagBytes = 0)
{
    std::vector<Sent> requests;
    for (const Sent& sent : script.sent) {
        if (!Asked(sent, tagBytes).empty())
            requests.push_back(sent);
    }
    return requests;
}

// One packet a millisecond, and a round trip of `roundTripUs` by the first echo.
void Begin(Script& script, int64_t roundTripUs, int64_t packets = 50)
{
    script.At(0);
    const std::vector<uint8_t> echo = script.sent.back().bytes;
    for (int64_t number = 0; number < packets; ++number)
        script.ComeEven(number);
    if (roundTripUs > 0) {
        ASSERT_GE(roundTripUs, script.nowUs);
        script.Come(echo, roundTripUs);
    }
}

TEST(ArqrxAsking, AGapWaitsHalfASpacingOnAnEvenLine)
{
    Script script;
    Begin(script, 0);
    script.ComeEven(51);
    EXPECT_EQ(script.Counted().toleranceUs, 500);
    script.RunUntil(51 * MS + 499);
    EXPECT_EQ(script.Counted().missing, 0U);
    EXPECT_THAT(script.AllAsked(), IsEmpty());
    script.RunUntil(51 * MS + 500);
    EXPECT_EQ(script.Counted().missing, 1U);
    EXPECT_THAT(TimesAsked(script, 50), ElementsAre(51 * MS + 500));
}

TEST(ArqrxAsking, ANumberThatWasOnlyOvertakenIsNotMissing)
{
    Script script;
    Begin(script, 0);
    script.ComeEven(51);
    script.Come(Script::Even(50), 51 * MS + 400);
    script.RunUntil(300 * MS);
    EXPECT_EQ(script.Counted().missing, 0U);
    EXPECT_EQ(script.Counted().reordered, 1U);
    EXPECT_THAT(script.AllAsked(), IsEmpty());
}

TEST(ArqrxAsking, ToleranceLearnsFromLateFirstSendingsAndForgets)
{
    Script script;
    Begin(script, 0, 500);
    script.ComeEven(501);
    script.RunUntil(508 * MS);
    script.Come(Script::Even(500), 509 * MS);
    EXPECT_EQ(script.Counted().missing, 1U);
    EXPECT_EQ(script.Counted().recovered, 1U);
    EXPECT_EQ(script.Counted().toleranceUs, 9 * MS) << "8 ms late, and an eighth more";
    script.RunUntil(509 * MS + 5 * SECOND);
    EXPECT_EQ(script.Counted().toleranceUs, 4500) << "half of it 5 s later";
}

TEST(ArqrxAsking, ResendsTeachNothing)
{
    Script script;
    Begin(script, 0);
    script.ComeEven(60);
    script.RunUntil(399 * MS);
    const int64_t toleranceUs = script.Counted().toleranceUs;
    const int64_t jitterUs = script.Counted().jitterUs;
    for (int number = 50; number < 60; ++number)
        script.ComeAgain(number, 400 * MS);
    EXPECT_EQ(script.Counted().recovered, 10U);
    EXPECT_EQ(script.Counted().toleranceUs, toleranceUs);
    EXPECT_EQ(script.Counted().jitterUs, jitterUs);
}

TEST(ArqrxAsking, ToleranceLeavesTimeForATry)
{
    Settings settings;
    settings.latencyUs = 100 * MS;
    Script script(settings);
    Begin(script, 60 * MS);
    script.ComeEven(62);
    script.Come(Script::Even(50), 150 * MS);
    EXPECT_EQ(script.Counted().toleranceUs, 20 * MS)
        << "100 ms less the round trip of 60 ms and a margin of 20 ms";
}

TEST(ArqrxAsking, AsksAgainAfterTheHoldOffUntilItComes)
{
    Script script;
    Begin(script, 60 * MS);
    script.ComeEven(61);
    script.RunUntil(280 * MS);
    const std::vector<int64_t> times = TimesAsked(script, 55);
    ASSERT_THAT(times, SizeIs(3));
    for (size_t i = 1; i < times.size(); ++i) {
        EXPECT_GE(times[i] - times[i - 1], 100 * MS);
        EXPECT_LE(times[i] - times[i - 1], 106 * MS) << "hold-off and guard";
    }
    script.ComeAgain(55, 280 * MS);
    script.RunUntil(650 * MS);
    EXPECT_THAT(TimesAsked(script, 55), SizeIs(3));
    EXPECT_GT(TimesAsked(script, 54).size(), 3U);
}

TEST(ArqrxAsking, DoesNotAskWhenNoAnswerComesInTimeAnyMore)
{
    Script script;
    Begin(script, 60 * MS);
    script.ComeEven(61);
    script.RunUntil(2 * SECOND);
    const int64_t lastUs = TimesAsked(script, 55).back();
    EXPECT_LT(lastUs, (600 + 55) * MS - 30 * MS) << "round trip less its variation";
    EXPECT_GT(lastUs, (600 + 55) * MS - 30 * MS - 200 * MS);
    EXPECT_EQ(script.Counted().lost, 11U);
}

TEST(ArqrxAsking, AsksNotAtAllWhenTheRoundTripIsLongerThanTheLatency)
{
    Settings settings;
    settings.latencyUs = 50 * MS;
    Script script(settings);
    Begin(script, 200 * MS);
    for (int number = 200; number < 210; ++number)
        script.ComeEven(number);
    const size_t asked = script.AllAsked().size();
    script.ComeEven(212);
    script.RunUntil(SECOND);
    EXPECT_EQ(script.AllAsked().size(), asked);
    EXPECT_EQ(script.Counted().lost, script.Counted().missing);
}

TEST(ArqrxAsking, AllThatIsDueGoesInOneRequestOldestFirst)
{
    Script script;
    Begin(script, 60 * MS);
    script.ComeEven(61);
    for (int number = 62; number < 100; ++number)
        script.ComeEven(number);
    script.ComeEven(110);
    script.RunUntil(170 * MS);
    const std::vector<Sent> requests = RequestsOf(script);
    ASSERT_FALSE(requests.empty());
    EXPECT_THAT(Asked(requests.front()), ElementsAre(50, 51, 52, 53, 54, 55, 56, 57, 58, 59, 60));
    for (const Sent& request : requests) {
        const std::vector<uint16_t> numbers = Asked(request);
        EXPECT_TRUE(std::is_sorted(numbers.begin(), numbers.end()));
    }
}

TEST(ArqrxAsking, WhatDoesNotFitIsSplitByRoomAtOnce)
{
    for (const uint32_t streamId : { 0U, 5U }) {
        Settings settings;
        settings.streamId = streamId;
        settings.latencyUs = 5 * SECOND;
        const size_t tagBytes = streamId == 0 ? 0 : 8;
        const size_t room = streamId == 0 ? 763 : 759;
        Script script(settings);
        Begin(script, 0);
        script.ComeEven(50 + 2000);
        script.RunUntil(2060 * MS);
        const std::vector<Sent> requests = RequestsOf(script, tagBytes);
        ASSERT_THAT(requests, SizeIs(3));
        EXPECT_THAT(Asked(requests[0], tagBytes), SizeIs(room));
        EXPECT_THAT(Asked(requests[1], tagBytes), SizeIs(room));
        EXPECT_THAT(Asked(requests[2], tagBytes), SizeIs(2000 - 2 * room));
        EXPECT_EQ(Asked(requests[0], tagBytes).front(), 50);
        EXPECT_EQ(Asked(requests[1], tagBytes).front(), 50 + room);
        EXPECT_EQ(requests[0].atUs, requests[2].atUs);
        EXPECT_EQ(script.Counted().requests, 3U);
        EXPECT_EQ(script.Counted().numbersAsked, 2000U);
    }
}

TEST(ArqrxAsking, WhatTheBudgetWouldNotAnswerIsSplitToo)
{
    Settings settings;
    settings.proxyBitRate = 1'000'000;
    Script script(settings);
    for (int number = 0; number < 50; ++number) {
        Media media = Script::Even(number);
        media.payload.assign(1316, 'x');
        script.Come(media, number * MS);
    }
    Media media = Script::Even(450);
    media.payload.assign(1316, 'x');
    script.Come(media, 450 * MS);
    script.RunUntil(452 * MS);
    const std::vector<Sent> requests = RequestsOf(script);
    ASSERT_GE(requests.size(), 2U);
    const std::vector<uint8_t>& first = requests.front().bytes;
    const uint32_t budget
        = (uint32_t { HostWord(first, 4) } * HostWord(first, 6) + HostWord(first, 8)) * 1'000'000 / 8000;
    EXPECT_EQ(Asked(requests.front()).size(), budget / 1328);
}

TEST(ArqrxAsking, TheWindowWordsStayTheSameAndCoverTheLatency)
{
    Script script;
    Begin(script, 60 * MS);
    script.ComeEven(61);
    script.RunUntil(500 * MS);
    const std::vector<Sent> requests = RequestsOf(script);
    ASSERT_GE(requests.size(), 2U);
    const auto window = [](const Sent& request) {
        return std::vector<uint8_t>(request.bytes.begin() + 4, request.bytes.begin() + 10);
    };
    for (const Sent& request : requests)
        EXPECT_EQ(window(request), window(requests.front()));
    const std::vector<uint8_t>& bytes = requests.front().bytes;
    EXPECT_GE((HostWord(bytes, 4) + 1) * HostWord(bytes, 6) + HostWord(bytes, 8), 660);
}

TEST(ArqrxAsking, NeverAsksForWhatTheRingCannotHold)
{
    Settings settings;
    settings.ringPackets = 64;
    Script script(settings);
    Begin(script, 0);
    script.ComeEven(51 + 63);
    EXPECT_EQ(script.Counted().lost, 1U) << "50 is 64 behind";
    script.RunUntil(140 * MS);
    EXPECT_THAT(TimesAsked(script, 50), IsEmpty());
    EXPECT_THAT(TimesAsked(script, 51), SizeIs(1)) << "63 behind";
    for (int number = 115; number < 200; ++number)
        script.ComeEven(number);
    script.RunUntil(500 * MS);
    EXPECT_THAT(TimesAsked(script, 51), SizeIs(1)) << "gone since";
}

TEST(ArqrxAsking, TheAnswerToTheFirstTryTellsTheRoundTripIfNoEchoDid)
{
    Script script;
    Begin(script, 0);
    script.ComeEven(51);
    script.RunUntil(60 * MS);
    script.ComeAgain(50, 51 * MS + 500 + 30 * MS);
    EXPECT_EQ(script.Counted().roundTripUs, 30 * MS);
}

TEST(ArqrxAsking, TheAnswerToOneOfTwoTriesTellsNothing)
{
    Script script;
    Begin(script, 0);
    script.ComeEven(51);
    script.RunUntil(180 * MS);
    ASSERT_THAT(TimesAsked(script, 50), SizeIs(2));
    script.ComeAgain(50, 190 * MS);
    EXPECT_EQ(script.Counted().roundTripUs, -1);
}

TEST(ArqrxAsking, TimeToRecoverCountsFromNoticingTheGap)
{
    Script script;
    Begin(script, 0);
    script.ComeEven(53);
    script.RunUntil(60 * MS);
    script.ComeAgain(50, 93 * MS);
    script.ComeAgain(51, 93 * MS);
    script.ComeAgain(52, 153 * MS);
    EXPECT_EQ(script.Counted().recoverP50Us, 40 * MS);
    EXPECT_EQ(script.Counted().recoverP99Us, 100 * MS);
}

TEST(ArqrxAsking, ALossyFastLineHasARequestAMillisecondAndNotOneAPacket)
{
    Script script;
    for (int number = 0; number < 20'000; ++number) {
        if (number % 5 == 4)
            continue;
        Media media = Script::Even(number);
        media.timestamp = static_cast<uint32_t>(number * 20 * 9 / 100);
        script.Come(media, number * 20); // 50,000 a second
    }
    EXPECT_LE(script.Counted().requests, 401U + 4 * 5);
    EXPECT_GE(script.Counted().requests, 350U);
    EXPECT_GE(script.Counted().numbersAsked, 3990U);
}

TEST(ArqrxAsking, NoBusyWakeUps)
{
    Script script;
    Begin(script, 60 * MS);
    script.ComeEven(61);
    int wakeUps = 0;
    while (script.receiver.NextWakeUp().timeUs < SECOND) {
        const int64_t atUs = script.receiver.NextWakeUp().timeUs;
        ASSERT_GT(atUs, script.nowUs);
        script.At(atUs);
        ++wakeUps;
    }
    EXPECT_LT(wakeUps, 100) << "51 packets, some pings, echoes and requests";
}

} // namespace
} // namespace arqrx::test
