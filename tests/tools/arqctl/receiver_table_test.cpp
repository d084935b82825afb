#include "arqctl/core/receiver_table.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

namespace arqctl::receiver_table_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr int64_t S = 1'000'000;
constexpr uint32_t TEN = 0x0A000000; // 10.0.0.0

ReceiverReport Of(const std::string& name, double runS, uint64_t lost = 0)
{
    ReceiverReport report;
    report.name = name;
    report.runS = runS;
    report.missing = 2 * lost;
    report.recovered = lost;
    report.lost = lost;
    return report;
}

std::vector<std::string> Labels(const ReceiverTable& table, const std::string& channel, int64_t nowUs)
{
    std::vector<std::string> labels;
    for (const ReporterView& view : table.Of(channel, nowUs))
        labels.push_back(view.label + " " + NameOf(view.state));
    return labels;
}

// A table that knows channel 1 with 10.0.0.1 and 10.0.0.2, and channel 2 with 10.0.0.2 and 10.0.0.3.
class Table : public ReceiverTable {
public:
    Table() { Look(0); }
    void Look(int64_t nowUs)
    {
        Assign(
            { { "1", { "10.0.0.1", "10.0.0.2" } }, { "2", { "10.0.0.2", "10.0.0.3", "nonsense" } } }, nowUs);
    }
};

TEST(ReceiverTable, AReportBelongsToTheFirstChannelThatListsItsAddressOrThatItNames)
{
    Table table;
    ReceiverReport named = Of("d", 1);
    named.channel = "2";
    EXPECT_TRUE(table.Take(Of("a", 1), TEN + 1, 5, S));
    EXPECT_TRUE(table.Take(Of("b", 1), TEN + 2, 5, S));
    EXPECT_TRUE(table.Take(Of("c", 1), TEN + 3, 5, S));
    EXPECT_TRUE(table.Take(named, TEN + 1, 6, S));
    EXPECT_TRUE(table.Take(Of("e", 1), TEN + 9, 5, S));
    EXPECT_THAT(Labels(table, "1", S), ElementsAre("a live", "b live"));
    EXPECT_THAT(Labels(table, "2", S), ElementsAre("c live", "d live"));
    EXPECT_THAT(Labels(table, "", S), ElementsAre("e live"));
    EXPECT_THAT(table.Channels(), ElementsAre("", "1", "2"));
    EXPECT_EQ(table.Of("1", S).front().address, "10.0.0.1");
}

TEST(ReceiverTable, AReceiverThatLeftTheListStaysInItsChannelUntilAnotherHasIt)
{
    Table table;
    (void)table.Take(Of("a", 1), TEN + 1, 5, S);
    table.Assign({ { "1", {} }, { "2", {} } }, S);
    (void)table.Take(Of("a", 2), TEN + 1, 5, 2 * S);
    EXPECT_THAT(Labels(table, "1", 2 * S), ElementsAre("a live"));
    table.Assign({ { "1", {} }, { "2", { "10.0.0.1" } } }, 2 * S);
    EXPECT_THAT(Labels(table, "1", 2 * S), IsEmpty());
    EXPECT_THAT(Labels(table, "2", 2 * S), ElementsAre("a live"));
}

TEST(ReceiverTable, SilenceIsGoneAndAFinalReportIsAnEnd)
{
    Table table;
    (void)table.Take(Of("a", 1), TEN + 1, 5, S);
    ReceiverReport last = Of("b", 1);
    last.isFinal = true;
    (void)table.Take(last, TEN + 2, 5, S);
    EXPECT_THAT(Labels(table, "1", 11 * S - 1), ElementsAre("a live", "b ended"));
    EXPECT_THAT(Labels(table, "1", 11 * S), ElementsAre("a gone", "b ended"));
    EXPECT_EQ(table.Of("1", 11 * S).front().ageUs, 10 * S);
}

TEST(ReceiverTable, WhoIsGoneIsForgottenAfterAnHourAndWhoHasEndedAfterTenMinutes)
{
    Table table;
    (void)table.Take(Of("a", 1), TEN + 1, 5, S);
    ReceiverReport last = Of("b", 1);
    last.isFinal = true;
    (void)table.Take(last, TEN + 2, 5, S);
    table.Look(601 * S - 1);
    EXPECT_EQ(table.Size(), 2U);
    table.Look(601 * S);
    EXPECT_THAT(Labels(table, "1", 601 * S), ElementsAre("a gone"));
    table.Look(3601 * S - 1);
    EXPECT_EQ(table.Size(), 1U);
    table.Look(3601 * S);
    EXPECT_EQ(table.Size(), 0U);
}

TEST(ReceiverTable, TotalsAreWhatIsCountedSinceTheFirstReportAndGoOnOverARestart)
{
    Table table;
    ReceiverReport other = Of("b", 50, 3);
    (void)table.Take(Of("a", 100, 1000), TEN + 1, 5, S);
    (void)table.Take(other, TEN + 2, 5, S);
    EXPECT_EQ(table.TotalsOf("1"), ReportTotals {}) << "what was before is not known by when";
    (void)table.Take(Of("a", 101, 1007), TEN + 1, 5, 2 * S);
    other.lost += 1;
    (void)table.Take(other, TEN + 2, 5, 2 * S);
    EXPECT_EQ(table.TotalsOf("1"), (ReportTotals { 0, 14, 7, 8 }));
    (void)table.Take(Of("a", 1, 4), TEN + 1, 5, 10 * S); // started again
    EXPECT_EQ(table.TotalsOf("1"), (ReportTotals { 0, 22, 11, 12 }));
    EXPECT_EQ(table.Of("1", 10 * S).front().restarts, 1U);
    EXPECT_EQ(table.TotalsOf("2"), ReportTotals {});
    table.Look(10'000 * S);
    EXPECT_EQ(table.TotalsOf("1"), (ReportTotals { 0, 22, 11, 12 }))
        << "all are forgotten, their counts are not";
}

TEST(ReceiverTable, ACountThatJumpsByMoreThanThereCanBeIsNotAddedUp)
{
    Table table;
    (void)table.Take(Of("a", 1, 0), TEN + 1, 5, S);
    (void)table.Take(Of("a", 2, MOST_COUNT / 4), TEN + 1, 5, 2 * S);
    EXPECT_EQ(table.TotalsOf("1"), ReportTotals {});
    (void)table.Take(Of("a", 3, MOST_COUNT / 4 + 1), TEN + 1, 5, 3 * S);
    EXPECT_EQ(table.TotalsOf("1").lost, 1U);
}

TEST(ReceiverTable, ADatagramThatWasOvertakenIsNoRestart)
{
    Table table;
    (void)table.Take(Of("a", 100, 10), TEN + 1, 5, S);
    (void)table.Take(Of("a", 102, 12), TEN + 1, 5, 3 * S);
    (void)table.Take(Of("a", 101, 11), TEN + 1, 5, 3 * S);
    EXPECT_EQ(table.Of("1", 3 * S).front().report->lost, 12U);
    EXPECT_EQ(table.Of("1", 3 * S).front().restarts, 0U);
    EXPECT_EQ(table.TotalsOf("1").lost, 2U);
}

TEST(ReceiverTable, AReceiverThatWasStartedAgainIsTheSameAtItsNewPort)
{
    Table table;
    (void)table.Take(Of("a", 100, 10), TEN + 1, 5, S);
    (void)table.Take(Of("a", 1, 2), TEN + 1, 6, 4 * S);
    EXPECT_THAT(Labels(table, "1", 4 * S), ElementsAre("a live"));
    EXPECT_EQ(table.Of("1", 4 * S).front().restarts, 1U);
    EXPECT_EQ(table.TotalsOf("1").lost, 2U);
    ReceiverReport last = Of("a", 2, 2);
    last.isFinal = true;
    (void)table.Take(last, TEN + 1, 6, 5 * S);
    (void)table.Take(Of("a", 1, 0), TEN + 1, 7, 5 * S); // at once: the other said that it ends
    EXPECT_THAT(Labels(table, "1", 5 * S), ElementsAre("a live"));
}

TEST(ReceiverTable, TwoThatReportSideBySideUnderOneNameAreTwo)
{
    Table table;
    for (int64_t second = 1; second < 5; ++second) {
        (void)table.Take(Of("a", 100.0 + static_cast<double>(second), 50), TEN + 1, 5, second * S);
        (void)table.Take(Of("a", 7.0 + static_cast<double>(second), 3), TEN + 1, 6, second * S);
    }
    EXPECT_THAT(Labels(table, "1", 5 * S), ElementsAre("a live", "a@10.0.0.1 live"));
    EXPECT_EQ(table.TotalsOf("1").lost, 0U);
}

TEST(ReceiverTable, WhoWasStartedAgainTooQuicklyToTellIsNotMissed)
{
    Table table;
    (void)table.Take(Of("a", 100), TEN + 1, 5, S);
    (void)table.Take(Of("a", 1), TEN + 1, 6, 2 * S);
    EXPECT_EQ(table.Size(), 2U);
    (void)table.Take(Of("a", 9), TEN + 1, 6, 10 * S);
    table.Look(11 * S);
    EXPECT_THAT(Labels(table, "1", 11 * S), ElementsAre("a live"));
}

TEST(ReceiverTable, LabelsOfAChannelDiffer)
{
    Table table;
    for (uint16_t port = 5; port < 8; ++port)
        (void)table.Take(Of("x", 1), TEN + 1, port, S);
    (void)table.Take(Of("x", 1), TEN + 2, 5, S);
    (void)table.Take(Of("x", 1), TEN + 3, 5, S);
    (void)table.Take(Of("", 1), TEN + 2, 9, S);
    EXPECT_THAT(Labels(table, "1", S),
        ElementsAre("x live", "x@10.0.0.1 live", "x@10.0.0.1#2 live", "x@10.0.0.2 live", "10.0.0.2 live"));
    EXPECT_THAT(Labels(table, "2", S), ElementsAre("x live"));
}

TEST(ReceiverTable, AThousandHaveRoomAndThenOnlyInPlaceOfWhoIsNotLive)
{
    Table table;
    for (uint32_t i = 0; i < ReceiverTable::MOST; ++i)
        EXPECT_TRUE(table.Take(Of("n", 1), TEN + 256 + i, 5, S + i));
    EXPECT_FALSE(table.Take(Of("n", 1), TEN + 1, 5, 2 * S));
    EXPECT_TRUE(table.Take(Of("n", 2), TEN + 256, 5, 2 * S)) << "who is here goes on";
    ReceiverReport last = Of("n", 3);
    last.isFinal = true;
    EXPECT_TRUE(table.Take(last, TEN + 256 + 7, 5, 3 * S));
    EXPECT_TRUE(table.Take(Of("n", 1), TEN + 1, 5, 3 * S)) << "instead of the one that has ended";
    EXPECT_FALSE(table.Take(Of("n", 1), TEN + 2, 5, 3 * S));
    EXPECT_TRUE(table.Take(Of("n", 1), TEN + 2, 5, 11 * S + 1))
        << "instead of the one that is silent longest";
    EXPECT_EQ(table.Size(), ReceiverTable::MOST);
    EXPECT_EQ(table.Of("1", 11 * S + 1).size(), 2U);
}

// Whatever comes in whatever order: bounded, labels differ, no channel's totals go back.
TEST(ReceiverTable, ChanceNeverBreaksItsPromises)
{
    std::mt19937 random(11);
    Table table;
    int64_t nowUs = 0;
    uint64_t lost = 0;
    for (int step = 0; step < 20'000; ++step) {
        nowUs += static_cast<int64_t>(random() % 400'000);
        ReceiverReport report = Of(std::string(1, static_cast<char>('a' + random() % 3)),
            static_cast<double>(random() % 100), random() % 50);
        report.isFinal = random() % 10 == 0;
        report.channel = random() % 3 == 0 ? "2" : "";
        (void)table.Take(
            report, TEN + static_cast<uint32_t>(random() % 6), static_cast<uint16_t>(random() % 4), nowUs);
        if (random() % 5 == 0)
            table.Look(nowUs);
        EXPECT_GE(table.TotalsOf("1").lost, lost);
        lost = table.TotalsOf("1").lost;
        std::vector<std::string> labels;
        for (const ReporterView& view : table.Of("1", nowUs))
            labels.push_back(view.label);
        std::sort(labels.begin(), labels.end());
        ASSERT_EQ(std::adjacent_find(labels.begin(), labels.end()), labels.end());
        ASSERT_LE(table.Size(), 6U * 3U * 2U * 4U);
    }
    EXPECT_GT(lost, 0U);
}

} // namespace
} // namespace arqctl::receiver_table_test
