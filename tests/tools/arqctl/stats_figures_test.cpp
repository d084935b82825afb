#include "arqctl/core/figures.h"

#include <gtest/gtest.h>

#include <set>

#include "arqctl/cli/stats_forms.h"

namespace arqctl::stats_figure_tests {

namespace {

constexpr int64_t SECOND = 1'000'000;

Statistics TwoReceivers(uint64_t received, uint32_t lost, uint64_t sent)
{
    return { .receivedPackets = received,
        .receivedBitRate = 9'870'000,
        .receivedLoss = lost,
        .sentPackets = sent,
        .sentBitRate = 4'294'967'295U,
        .receivers = { "10.0.0.1", "10.0.0.2" } };
}

// A watch of two answers, two seconds apart.
class TwoAnswers {
public:
    TwoAnswers()
    {
        m_meter.Take(TwoReceivers(1000, 3, 2000), SECOND, 7);
        m_before = m_meter.Now().totals;
        m_meter.Take(TwoReceivers(1801, 5, 3607), 3 * SECOND, 7);
    }

    Sample Second() const
    {
        return { .now = m_meter.Now(),
            .unixTime = 1700000000.125,
            .atUs = 3 * SECOND,
            .before = m_before,
            .beforeUs = SECOND,
            .isWatched = true };
    }
    Sample Alone() const { return { .now = m_meter.Now(), .unixTime = 1700000000.125, .before = {} }; }
    Sample Missed()
    {
        m_meter.Miss(5 * SECOND);
        return {
            .now = m_meter.Now(), .unixTime = 1700000002, .atUs = 5 * SECOND, .before = {}, .isWatched = true
        };
    }

private:
    Meter m_meter;
    Totals m_before;
};

TEST(StatsFigures, EachHasAKeyOfItsOwn)
{
    std::set<std::string_view> keys;
    for (const Figure& figure : Figures())
        EXPECT_TRUE(keys.insert(figure.key).second) << figure.key;
}

TEST(StatsFigures, TheColumnsOfCsvStayInTheirOrder)
{
    EXPECT_EQ(CsvHeading(),
        "time,up,input_packets,input_bit_rate,input_lost,output_packets,output_bit_rate,receiver_count,receivers,"
        "interval_s,input_packets_delta,input_packet_rate,input_lost_delta,input_loss_rate,output_packets_delta,"
        "output_packet_rate,sent_beyond_delta,sent_beyond_rate,withheld_delta,withheld_rate,input_silent_s,input_gone,"
        "resets,restarts\n");
}

TEST(StatsFigures, AnAnswerOfAWatchHasEveryColumn)
{
    EXPECT_EQ(CsvLine(TwoAnswers().Second()),
        "1700000000.125,1,1801,9870000,5,3607,4294967295,2,10.0.0.1 10.0.0.2,"
        "2,801,400.5,2,1,1607,803.5,5,2.5,0,0,0,0,0,0\n");
}

TEST(StatsFigures, ASingleReadingLeavesEmptyWhatNeedsTwo)
{
    EXPECT_EQ(CsvLine(TwoAnswers().Alone()),
        "1700000000.125,1,1801,9870000,5,3607,4294967295,2,10.0.0.1 10.0.0.2,,,,,,,,,,,,,,,\n");
}

TEST(StatsFigures, AProxyThatDoesNotAnswerHasNeitherCountsNorRates)
{
    TwoAnswers answers;
    EXPECT_EQ(CsvLine(answers.Missed()), "1700000002,0,,,,,,,,,,,,,,,,,,,,,0,0\n");
    EXPECT_EQ(JsonLine(answers.Missed(), "nobody listens"),
        R"({"time":1700000002.0,"up":false,"resets":0,"restarts":0,"error":"nobody listens"})"
        "\n");
}

TEST(StatsFigures, AnObjectHasTheFiguresByTheirKeysAndOnlyTheOnesThatAreKnown)
{
    EXPECT_EQ(JsonLine(TwoAnswers().Alone()),
        R"({"time":1700000000.125,"up":true,"input_packets":1801,"input_bit_rate":9870000,"input_lost":5,)"
        R"("output_packets":3607,"output_bit_rate":4294967295,"receiver_count":2,"receivers":["10.0.0.1","10.0.0.2"]})"
        "\n");
    const std::string watched = JsonLine(TwoAnswers().Second());
    EXPECT_NE(watched.find(R"("input_packet_rate":400.5,"input_lost_delta":2,)"), std::string::npos)
        << watched;
    EXPECT_NE(watched.find(R"("input_gone":false,"resets":0,"restarts":0})"), std::string::npos) << watched;
}

TEST(StatsFigures, AReadingForPeopleIsAligned)
{
    EXPECT_EQ(ReadingText(TwoAnswers().Alone()),
        "input packets    1801\n"
        "input bit rate   9.87 Mbit/s\n"
        "input lost       5\n"
        "output packets   3607\n"
        "output bit rate  4.29 Gbit/s\n"
        "receivers        2\n"
        "                 10.0.0.1\n"
        "                 10.0.0.2\n");
}

TEST(StatsFigures, TheLinesOfAWatchStandUnderTheirHeadingsInEightyColumns)
{
    TwoAnswers answers;
    const std::string heading = WatchHeading();
    const std::string line = WatchLine(answers.Second());
    EXPECT_EQ(heading, "time           input    pkt/s   lost      output    pkt/s  beyond withheld recv\n");
    EXPECT_EQ(line.substr(8), " 9.87 Mbit/s    400.5      2 4.29 Gbit/s    803.5       5        0    2\n");
    EXPECT_EQ(line.size(), heading.size());
    EXPECT_LE(line.size(), 81U);
    EXPECT_EQ(WatchLine(answers.Alone()).substr(8),
        " 9.87 Mbit/s        -      - 4.29 Gbit/s        -       -        -    2\n");
}

std::string BitRateOf(double bitsPerSecond)
{
    return PeopleText(Columns().front().figure, FigureValue(bitsPerSecond));
}

TEST(StatsFigures, BitRatesForPeopleHaveThreeDigits)
{
    EXPECT_EQ(BitRateOf(0), "0 bit/s");
    EXPECT_EQ(BitRateOf(999), "999 bit/s");
    EXPECT_EQ(BitRateOf(1000), "1.00 kbit/s");
    EXPECT_EQ(BitRateOf(9994), "9.99 kbit/s");
    EXPECT_EQ(BitRateOf(9996), "10.0 kbit/s");
    EXPECT_EQ(BitRateOf(99'940), "99.9 kbit/s");
    EXPECT_EQ(BitRateOf(99'960), "100 kbit/s");
    EXPECT_EQ(BitRateOf(999'600), "1.00 Mbit/s");
    EXPECT_EQ(BitRateOf(4'294'967'295), "4.29 Gbit/s");
    EXPECT_EQ(BitRateOf(5e15), "5000 Tbit/s");
}

TEST(StatsFigures, NumbersForProgramsHaveNoMoreThanAThousandth)
{
    EXPECT_EQ(RawText(2.0), "2");
    EXPECT_EQ(RawText(0.0004), "0");
    EXPECT_EQ(RawText(1.0 / 3), "0.333");
    EXPECT_EQ(RawText(~uint64_t { 0 }), "18446744073709551615");
    EXPECT_EQ(RawText(true), "1");
}

} // namespace

} // namespace arqctl::stats_figure_tests
