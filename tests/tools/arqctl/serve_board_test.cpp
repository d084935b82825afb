#include <gtest/gtest.h>
#include <malloc.h>

#include "arqctl/serve/board.h"
#include "arqctl/serve/channel_json.h"
#include "arqctl/serve/channel_metrics.h"

namespace arqctl::serve_board_test {

using Json = nlohmann::ordered_json;

constexpr int64_t SECOND_US = 1'000'000;
constexpr int64_t HALF_US = SECOND_US / 2;

// A proxy that has had `packets` input packets, at the time of its answer.
WatchedChannel Answered(uint64_t packets, int64_t atUs)
{
    WatchedChannel watched;
    watched.id = "1";
    watched.reading.isUp = true;
    watched.reading.hasBeenUp = true;
    watched.reading.hasHadInput = packets > 0;
    watched.reading.atUs = atUs;
    watched.reading.inputChangedUs = atUs;
    watched.reading.statistics.receivedBitRate = 1000;
    watched.reading.statistics.receivers = { "10.0.0.1", "10.0.0.2" };
    watched.reading.totals.received = packets;
    watched.reading.totals.lost = packets / 10;
    watched.reading.rates.inputPackets = 100;
    return watched;
}

WatchedChannel Unanswered()
{
    WatchedChannel watched = Answered(100, 0);
    watched.reading.isUp = false;
    watched.failures = 1;
    watched.problem = "nobody listens";
    return watched;
}

// "2" receivers or "-" for each second of the last minute, without the gaps around.
std::string Seconds(const Board& board, int64_t second)
{
    const Moment now { (second + 1) * SECOND_US + HALF_US, 1e9 };
    std::string marks;
    const Json history = HistoryObject(*board.Find("1"), 60, 60, now);
    for (const Json& value : history["receivers"])
        marks += value.is_null() ? "-" : std::to_string(value.get<int>());
    const size_t begin = marks.find_first_not_of('-');
    return begin == std::string::npos ? "" : marks.substr(begin);
}

void Tick(Board& board, int64_t second)
{
    board.Take(
        { Answered(static_cast<uint64_t>(second) * 100, second * SECOND_US) }, second * SECOND_US + HALF_US);
}

TEST(ServeBoard, ALoopThatIsASecondLateLeavesNoGap)
{
    Board board({});
    Tick(board, 100);
    Tick(board, 102);
    EXPECT_EQ(Seconds(board, 102), "222");
}

TEST(ServeBoard, ASecondWithoutAnAnswerIsAGapHoweverShort)
{
    Board board({});
    Tick(board, 100);
    board.Take({ Unanswered() }, 101 * SECOND_US + HALF_US);
    Tick(board, 102);
    EXPECT_EQ(Seconds(board, 102), "2-2");
}

TEST(ServeBoard, AnAnswerThatIsTooOldTellsNothingOfThisSecond)
{
    Board board({});
    Tick(board, 100);
    for (int64_t second = 101; second < 105; second++)
        board.Take({ Answered(10'000, 100 * SECOND_US) }, second * SECOND_US + HALF_US);
    EXPECT_EQ(Seconds(board, 104), "222--"); // the answer of second 100 stands for 2.5 s
}

TEST(ServeBoard, EachLostPacketIsInTheHistoryOnce)
{
    Board board({});
    double sum = 0;
    for (int64_t second = 100; second < 150; second += second % 7 == 0 ? 2 : 1)
        Tick(board, second);
    const Json history = HistoryObject(*board.Find("1"), 60, 60, { 151 * SECOND_US, 1e9 });
    for (const Json& value : history["lost"])
        sum += value.is_null() ? 0 : value.get<double>();
    EXPECT_DOUBLE_EQ(sum, 49 * 10);
}

TEST(ServeBoard, AStepOfTheClockMovesAllTimesAlike)
{
    Board board({});
    for (int64_t second = 100; second < 130; second++)
        Tick(board, second);
    const Json before = HistoryObject(*board.Find("1"), 60, 60, { 130 * SECOND_US, 1e9 });
    const Json after = HistoryObject(*board.Find("1"), 60, 60, { 130 * SECOND_US, 1e9 - 3600 });
    ASSERT_EQ(before["time"].size(), 60U);
    for (size_t step = 0; step < 60; step++) {
        EXPECT_EQ(before["time"][step].get<int64_t>() - after["time"][step].get<int64_t>(), 3600);
        EXPECT_EQ(before["time"][step].get<int64_t>() - before["time"][0].get<int64_t>(),
            static_cast<int64_t>(step));
    }
    EXPECT_EQ(before["receivers"], after["receivers"]);
}

TEST(ServeBoard, HealthIsThatSomeProxyAnswersOrTheReason)
{
    Board board({});
    std::string reason;
    EXPECT_FALSE(board.IsFresh(reason));
    EXPECT_EQ(reason, "no proxy was found");
    board.Take({ Unanswered() }, HALF_US);
    EXPECT_FALSE(board.IsFresh(reason));
    EXPECT_EQ(reason, "nobody listens");
    WatchedChannel other = Answered(1, SECOND_US);
    other.id = "2";
    board.Take({ Unanswered(), other }, SECOND_US + HALF_US);
    EXPECT_TRUE(board.IsFresh(reason));
}

TEST(ServeBoard, NamesThatAreNoTextDoNotStopTheAnswer)
{
    const std::map<std::string, std::string> names { { "1", "caf\xC3 \xFF" } };
    Board board(names);
    Tick(board, 100);
    const std::string text = ChannelsObject(board, false, { 101 * SECOND_US, 1e9 })
                                 .dump(-1, ' ', false, Json::error_handler_t::replace);
    EXPECT_TRUE(Json::parse(text)["channels"][0]["name"].is_string());
}

TEST(ServeBoard, MetricsOfAProxyThatNeverAnsweredAreOnlyThatItIsDown)
{
    Board board({});
    WatchedChannel never;
    never.id = "1";
    never.failures = 2;
    board.Take({ never }, HALF_US);
    MetricList list;
    AddChannelMetrics(board, { SECOND_US, 1e9 }, list);
    EXPECT_EQ(list.Text(),
        "# HELP tx_proxy_up 1 while the proxy answers.\n# TYPE tx_proxy_up gauge\ntx_proxy_up{channel=\"1\"} 0\n"
        "# HELP tx_proxy_control_failures_total Questions to the proxy that were not answered.\n"
        "# TYPE tx_proxy_control_failures_total counter\ntx_proxy_control_failures_total{channel=\"1\"} 2\n");
}

TEST(ServeBoard, ADayTakesNoMoreMemoryThanItsFirstMinutes)
{
    constexpr int64_t DAY = 86'400;
    constexpr int64_t SETTLED = 1800;
    Board board({});
    size_t settledBytes = 0;
    for (int64_t second = 1; second <= DAY; second++) {
        WatchedChannel watched = Answered(static_cast<uint64_t>(second) * 100, second * SECOND_US);
        // A receiver comes and goes, a report comes from another one.
        if (second % 60 < 30)
            watched.reading.statistics.receivers.emplace_back("10.0.1." + std::to_string(second / 60 % 20));
        board.Take({ watched }, second * SECOND_US + HALF_US);
        board.TakeReport("{\"arqrx\":1}", { 1, 2 }, second * SECOND_US + HALF_US);
        if (second % 100 == 0)
            (void)ChannelsObject(board, false, { second * SECOND_US, 1e9 }).dump();
        if (second == SETTLED)
            settledBytes = mallinfo2().uordblks + mallinfo2().hblkhd;
    }
    const size_t endBytes = mallinfo2().uordblks + mallinfo2().hblkhd;
    EXPECT_LT(endBytes, settledBytes + 16'384);
    EXPECT_EQ(
        HistoryObject(*board.Find("1"), DAY, 1000, { (DAY + 1) * SECOND_US, 1e9 })["time"].size(), 960U);
}

} // namespace arqctl::serve_board_test
