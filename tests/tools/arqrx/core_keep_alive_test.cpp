#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tools/arqrx/core_script.h"

namespace arqrx::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const std::vector<uint8_t> STOP { 0xDE, 0xAD, 0xBE, 0xEF, 0xBA, 0xBE, 0xFA, 0xCE };
const std::vector<uint8_t> LEAVE { 0xEF, 0xBE, 0xAD, 0xDE };
const std::vector<uint8_t> TAGGED_LEAVE { 0xEF, 0xBE, 0xAD, 0xDE, 4, 3, 2, 1 };

bool IsLeave(const Sent& sent)
{
    return sent.port == ProxyPort::Ping && sent.bytes.size() >= 4
        && std::equal(LEAVE.begin(), LEAVE.end(), sent.bytes.begin());
}

std::vector<int64_t> TimesOf(const Script& script, ProxyPort port)
{
    std::vector<int64_t> times;
    for (const Sent& sent : script.sent) {
        if (sent.port == port && !IsLeave(sent))
            times.push_back(sent.atUs);
    }
    return times;
}

std::vector<int64_t> LeaveTimes(const Script& script)
{
    std::vector<int64_t> times;
    for (const Sent& sent : script.sent) {
        if (IsLeave(sent))
            times.push_back(sent.atUs);
    }
    return times;
}

// Answers the last echo.
void EchoBack(Script& script, int64_t atUs)
{
    for (auto sent = script.sent.rbegin(); sent != script.sent.rend(); ++sent) {
        if (sent->port == ProxyPort::Request && sent->bytes.size() == 9)
            return script.Come(sent->bytes, atUs);
    }
    FAIL() << "no echo was sent";
}

TEST(ArqrxKeepAlive, WantsToBeWokenAtOnceAndForWhat)
{
    EXPECT_EQ(Script().receiver.NextWakeUp().timer, Timer::Ping);
    Settings settings;
    settings.isPinging = false;
    EXPECT_EQ(Script(settings).receiver.NextWakeUp().timer, Timer::Echo);
    settings.isAsking = false;
    EXPECT_EQ(Script(settings).receiver.NextWakeUp().timer, Timer::None);
    EXPECT_EQ(Script(settings).receiver.NextWakeUp().timeUs, INT64_MAX);
}

TEST(ArqrxKeepAlive, MeasuresQuicklyUntilAnsweredAndThenOnceASecond)
{
    Script script;
    script.At(SECOND);
    script.RunUntil(SECOND + 230 * MS);
    EXPECT_THAT(TimesOf(script, ProxyPort::Request), ElementsAre(1000 * MS, 1100 * MS, 1200 * MS));
    EchoBack(script, SECOND + 240 * MS);
    EXPECT_EQ(script.Counted().roundTripUs, 40 * MS);
    script.RunUntil(SECOND + 2400 * MS);
    EXPECT_THAT(TimesOf(script, ProxyPort::Request),
        ElementsAre(1000 * MS, 1100 * MS, 1200 * MS, 1300 * MS, 2300 * MS, 3300 * MS));
    EXPECT_EQ(script.Counted().echoesSent, 6U);
    EXPECT_EQ(script.Counted().echoesBack, 1U);
}

TEST(ArqrxKeepAlive, SmoothesTheRoundTrip)
{
    Script script;
    script.At(0);
    EchoBack(script, 80 * MS);
    EXPECT_EQ(script.Counted().roundTripUs, 80 * MS);
    script.RunUntil(100 * MS);
    EchoBack(script, 100 * MS + 160 * MS);
    EXPECT_EQ(script.Counted().roundTripUs, 90 * MS) << "an eighth of what is new (RFC 6298)";
}

TEST(ArqrxKeepAlive, AnEchoCountsOnce)
{
    Script script;
    script.At(0);
    EchoBack(script, 20 * MS);
    EchoBack(script, 90 * MS);
    script.Come({ 0, 0, 0xAD, 0xE2, 0, 0, 0, 9, 9 }, 95 * MS);
    EXPECT_EQ(script.Counted().echoesBack, 1U);
    EXPECT_EQ(script.Counted().roundTripUs, 20 * MS);
}

TEST(ArqrxKeepAlive, LeavesAndPingsAnewAfterSilence)
{
    Settings settings;
    settings.streamId = 0x01020304;
    Script script(settings);
    script.ComeEven(0);
    script.RunUntil(3 * SECOND - 1);
    EXPECT_EQ(script.Counted().rejoins, 0U);
    script.RunUntil(3 * SECOND);
    EXPECT_EQ(script.Counted().rejoins, 1U);
    ASSERT_THAT(LeaveTimes(script), ElementsAre(3 * SECOND));
    const auto leave = std::find_if(script.sent.begin(), script.sent.end(), IsLeave);
    EXPECT_EQ(leave->bytes, TAGGED_LEAVE);
    ASSERT_NE(leave + 1, script.sent.end());
    EXPECT_EQ((leave + 1)->port, ProxyPort::Ping) << "right behind";
    EXPECT_FALSE(IsLeave(*(leave + 1)));
}

TEST(ArqrxKeepAlive, BacksOffWhileJoiningAnewDoesNotHelp)
{
    Script script;
    script.At(0);
    script.RunUntil(200 * SECOND);
    EXPECT_THAT(LeaveTimes(script),
        ElementsAre(3 * SECOND, 9 * SECOND, 21 * SECOND, 45 * SECOND, 93 * SECOND, 153 * SECOND));
    script.ComeEven(200'000);
    script.RunUntil(203 * SECOND);
    EXPECT_EQ(LeaveTimes(script).back(), 203 * SECOND) << "as at first once something has come";
}

TEST(ArqrxKeepAlive, ASilentSourceIsNoSilence)
{
    Script script;
    script.At(0);
    for (int second = 1; second <= 20; ++second) {
        EchoBack(script, second * SECOND - 900 * MS);
        script.RunUntil(second * SECOND);
    }
    EXPECT_EQ(script.Counted().rejoins, 0U);
    EXPECT_THAT(LeaveTimes(script), IsEmpty());
}

TEST(ArqrxKeepAlive, AStopMessageEndsPingsAndRequestsForAWhile)
{
    Script script;
    script.ComeEven(0);
    script.ComeEven(1);
    script.Come(STOP, 2 * MS);
    EXPECT_EQ(script.Counted().stops, 1U);
    const size_t sent = script.sent.size();
    script.ComeEven(5);
    script.RunUntil(10 * SECOND + 1 * MS);
    EXPECT_EQ(script.sent.size(), sent);
    EXPECT_EQ(script.Counted().missing, 3U) << "still counted";
    EXPECT_EQ(script.played.size(), 3U) << "what is here is still played out";
    script.RunUntil(10 * SECOND + 2 * MS);
    EXPECT_EQ(TimesOf(script, ProxyPort::Ping).back(), 10 * SECOND + 2 * MS);
    EXPECT_THAT(LeaveTimes(script), IsEmpty());
}

TEST(ArqrxKeepAlive, AStopMessageIsForEverIfSoWished)
{
    Settings settings;
    settings.rejoinAfterUs = 0;
    Script script(settings);
    script.ComeEven(0);
    script.Come(STOP, 2 * MS);
    const size_t sent = script.sent.size();
    script.RunUntil(SECOND);
    EXPECT_EQ(script.receiver.NextWakeUp().timer, Timer::None);
    EXPECT_EQ(script.sent.size(), sent);
}

TEST(ArqrxKeepAlive, LeavesFiveTimesAndIsSilentThen)
{
    Script script;
    for (const int number : { 0, 1, 5 })
        script.ComeEven(number);
    script.RunUntil(8 * MS);
    const size_t sent = script.sent.size();
    script.receiver.Leave();
    EXPECT_LE(script.receiver.NextWakeUp().timeUs, script.nowUs) << "something is to be drawn";
    script.Draw();
    ASSERT_EQ(script.sent.size(), sent + 5);
    EXPECT_EQ(script.sent.back().bytes, LEAVE);
    script.RunUntil(SECOND);
    EXPECT_EQ(script.sent.size(), sent + 5);
    EXPECT_EQ(script.played.size(), 3U);
    EXPECT_EQ(script.receiver.NextWakeUp().timer, Timer::None);
}

TEST(ArqrxKeepAlive, WhoOnlyListensSendsNothing)
{
    Settings settings;
    settings.isPinging = false;
    settings.isAsking = false;
    Script script(settings);
    for (const int number : { 0, 1, 5 })
        script.ComeEven(number);
    script.RunUntil(10 * SECOND);
    script.receiver.Leave();
    script.Draw();
    EXPECT_THAT(script.sent, IsEmpty());
    EXPECT_EQ(script.Counted().missing, 3U);
    EXPECT_EQ(script.Counted().lost, 3U);
    EXPECT_EQ(script.Counted().rejoins, 0U);
}

TEST(ArqrxKeepAlive, WhoDoesNotPingAsksButNeitherPingsNorLeaves)
{
    Settings settings;
    settings.isPinging = false;
    Script script(settings);
    for (const int number : { 0, 1, 3 })
        script.ComeEven(number);
    script.RunUntil(10 * SECOND);
    script.receiver.Leave();
    script.Draw();
    EXPECT_THAT(TimesOf(script, ProxyPort::Ping), IsEmpty());
    EXPECT_THAT(LeaveTimes(script), IsEmpty());
    EXPECT_FALSE(script.AllAsked().empty());
}

} // namespace
} // namespace arqrx::test
