#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tools/arqrx/core_script.h"

namespace arqrx::test {
namespace {

using testing::ElementsAre;
using testing::Pair;

const std::vector<uint8_t> PING { 0x00, 0x00, 0xAD, 0xE2 };

TEST(ArqrxReceiver, PingsAtOnceAndThenEachInterval)
{
    Script script;
    script.At(5 * SECOND);
    script.RunUntil(7 * SECOND);
    std::vector<int64_t> times;
    for (const Sent& sent : script.sent) {
        if (sent.port == ProxyPort::Ping)
            times.push_back(sent.atUs);
    }
    EXPECT_THAT(times, ElementsAre(5 * SECOND, 6 * SECOND, 7 * SECOND));
    EXPECT_EQ(script.sent.front().bytes, PING);
    EXPECT_EQ(script.Counted().pings, 3U);
}

TEST(ArqrxReceiver, EverythingThatIsSentBeginsWithTheTag)
{
    Settings settings;
    settings.streamId = 0x01020304;
    Script script(settings);
    script.ComeEven(0);
    script.ComeEven(3);
    script.RunUntil(200 * MS);
    ASSERT_GE(script.sent.size(), 3U);
    for (const Sent& sent : script.sent) {
        ASSERT_GE(sent.bytes.size(), 8U);
        EXPECT_THAT(std::vector<uint8_t>(sent.bytes.begin(), sent.bytes.begin() + 8),
            ElementsAre(0xCE, 0xFA, 0xBE, 0xBA, 4, 3, 2, 1));
    }
    EXPECT_THAT(script.AllAsked(8).at(0), Pair(1, testing::_));
}

TEST(ArqrxReceiver, PlaysOutInOrderAfterTheLatency)
{
    Script script;
    for (const int number : { 0, 1, 3, 2, 4 })
        script.Come(Script::Even(number), 4 * MS);
    script.RunUntil(2 * SECOND);
    EXPECT_THAT(script.PlayedNumbers(), ElementsAre(0, 1, 2, 3, 4));
    for (size_t i = 0; i < script.played.size(); ++i) {
        EXPECT_EQ(script.played[i].dueUs, 600 * MS + static_cast<int64_t>(i) * MS);
        EXPECT_EQ(script.played[i].atUs, script.played[i].dueUs);
    }
}

TEST(ArqrxReceiver, AsksForAGapAndPlaysWhatComesAgain)
{
    Script script;
    for (const int number : { 0, 1, 2, 6, 7 })
        script.ComeEven(number);
    script.RunUntil(60 * MS);
    std::vector<uint16_t> asked;
    for (const auto& [number, atUs] : script.AllAsked())
        asked.push_back(number);
    EXPECT_THAT(asked, ElementsAre(3, 4, 5));
    EXPECT_EQ(script.Counted().missing, 3U);
    EXPECT_EQ(script.Counted().waiting, 3U);
    for (const int number : { 3, 4, 5 })
        script.ComeAgain(number, 70 * MS);
    EXPECT_EQ(script.Counted().recovered, 3U);
    script.RunUntil(SECOND);
    EXPECT_THAT(script.PlayedNumbers(), ElementsAre(0, 1, 2, 3, 4, 5, 6, 7));
    EXPECT_EQ(script.played[3].datagram, Script::Even(3).Bytes()) << "payload type 33 is restored";
    EXPECT_TRUE(script.played[3].isRecovered);
    EXPECT_FALSE(script.isIdentityBroken);
}

TEST(ArqrxReceiver, AMissingNumberIsLostWhenTheNextOneIsPlayedOut)
{
    Script script;
    for (const int number : { 0, 1, 3 })
        script.ComeEven(number);
    script.RunUntil(600 * MS + 3 * MS - 1);
    EXPECT_EQ(script.Counted().lost, 0U);
    script.RunUntil(600 * MS + 3 * MS);
    EXPECT_EQ(script.Counted().lost, 1U);
    EXPECT_THAT(script.PlayedNumbers(), ElementsAre(0, 1, 3));
    EXPECT_EQ(script.played.back().lostBefore, 1U);
    script.ComeAgain(2, 700 * MS);
    EXPECT_EQ(script.Counted().late, 1U);
}

TEST(ArqrxReceiver, NumbersAndTimestampsWrap)
{
    Script script;
    for (int number = 0; number < 8; ++number) {
        Media media = Script::Even(number);
        media.seq = static_cast<uint16_t>(65532 + number);
        media.timestamp = static_cast<uint32_t>(-360 + 90 * number);
        script.Come(media, number * MS);
    }
    script.RunUntil(SECOND);
    EXPECT_THAT(script.PlayedNumbers(), ElementsAre(65532, 65533, 65534, 65535, 0, 1, 2, 3));
    EXPECT_EQ(script.played.back().number - script.played.front().number, 7U);
    EXPECT_EQ(script.played.back().dueUs, 607 * MS);
    EXPECT_EQ(script.Counted().restarts, 0U);
}

} // namespace
} // namespace arqrx::test
