#include "arqctl/serve/report_metrics.h"

#include <gtest/gtest.h>

#include <map>

#include "arqctl/core/request_budget.h"

namespace arqctl::report_metrics_test {
namespace {

constexpr int64_t SECOND_US = 1'000'000;

ReceiverReport Reported(const std::string& name)
{
    ReceiverReport report { name, "", "h:10000", "", 1000, 9, 12, 8, 3, 1, 2, 4, 5, 17, 6, 12.5, 0, 687, 600,
        598.5, 20.5, 0.25, 1328, 7082667, false };
    return report;
}

// By name with labels: "up{1,studio-b}".
std::map<std::string, double> Values(const ReceiverTable& table, int64_t nowUs)
{
    std::map<std::string, double> values;
    for (const prometheus::MetricFamily& family : ReportFamilies(table, nowUs)) {
        EXPECT_EQ(family.name.rfind("tx_proxy_report_", 0), 0U);
        EXPECT_EQ(family.name.ends_with("_total"), family.type == prometheus::MetricType::Counter)
            << family.name;
        for (const prometheus::ClientMetric& metric : family.metric) {
            const std::string labels = "{" + metric.label.at(0).value + "," + metric.label.at(1).value + "}";
            const bool isCounter = family.type == prometheus::MetricType::Counter;
            values[family.name.substr(16) + labels] = isCounter ? metric.counter.value : metric.gauge.value;
        }
    }
    return values;
}

TEST(ReportMetrics, AreInBaseUnitsUnderChannelAndName)
{
    ReceiverTable table;
    table.Assign({ { "1", { "10.0.0.1" } } }, 0);
    ASSERT_TRUE(table.Take(Reported("b"), 0x0A000001, 5, SECOND_US));
    const std::map<std::string, double> wanted { { "up{1,b}", 1 }, { "received_packets_total{1,b}", 1000 },
        { "resent_packets_total{1,b}", 9 }, { "missing_packets_total{1,b}", 12 },
        { "recovered_packets_total{1,b}", 8 }, { "lost_packets_total{1,b}", 3 },
        { "late_packets_total{1,b}", 4 }, { "duplicate_packets_total{1,b}", 2 },
        { "waiting_packets{1,b}", 1 }, { "requests_total{1,b}", 5 }, { "asked_packets_total{1,b}", 17 },
        { "largest_request_bytes{1,b}", 6 * 1328 }, { "round_trip_seconds{1,b}", 0.0205 },
        { "buffer_seconds{1,b}", 0.5985 }, { "latency_seconds{1,b}", 0.6 } };
    EXPECT_EQ(Values(table, SECOND_US), wanted);
}

TEST(ReportMetrics, WhoIsGoneIsDownAndWhoHasEndedIsNotThere)
{
    ReceiverTable table;
    ReceiverReport last = Reported("ended");
    last.isFinal = true;
    ASSERT_TRUE(table.Take(Reported("gone"), 0x0A000001, 5, SECOND_US));
    ASSERT_TRUE(table.Take(last, 0x0A000002, 5, SECOND_US));
    EXPECT_EQ(Values(table, 11 * SECOND_US), (std::map<std::string, double> { { "up{,gone}", 0 } }));
}

TEST(ReportMetrics, WhatIsNotKnownIsLeftOut)
{
    ReceiverTable table;
    ReceiverReport report = Reported("b");
    report.roundTripMs = report.packetBytes = -1;
    ASSERT_TRUE(table.Take(report, 0x0A000001, 5, SECOND_US));
    const auto values = Values(table, SECOND_US);
    EXPECT_EQ(values.count("round_trip_seconds{,b}"), 0U);
    EXPECT_EQ(values.count("largest_request_bytes{,b}"), 0U);
    EXPECT_TRUE(ReportFamilies(ReceiverTable(), 0).empty());
}

TEST(RequestBudget, WrapsAsTheProxysDoes)
{
    EXPECT_EQ(RequestBudgetBytes(400, 50'000'000), 352'516U);
    EXPECT_EQ(RequestBudgetBytes(400, 10'700'000), 535'000U);
    EXPECT_EQ(RequestBudgetBytes(687, 50'000'000), 535'653U);
}

TEST(RequestBudget, IsTheSmallestOfTheReceiversThatLiveOrTheUsualOne)
{
    ReceiverTable table;
    EXPECT_EQ(RequestBudgetBytes(table.Of("", 0), 50'000'000), 352'516U);
    ReceiverReport report = Reported("a");
    ASSERT_TRUE(table.Take(report, 0x0A000001, 5, 0));
    report.windowMs = 100;
    ASSERT_TRUE(table.Take(report, 0x0A000002, 5, 5 * SECOND_US));
    report.windowMs = -1;
    ASSERT_TRUE(table.Take(report, 0x0A000003, 5, 12 * SECOND_US));
    EXPECT_EQ(RequestBudgetBytes(table.Of("", 9 * SECOND_US), 10'000'000), 125'000U);
    EXPECT_EQ(RequestBudgetBytes(table.Of("", 12 * SECOND_US), 10'000'000), 125'000U) << "one is gone";
    EXPECT_EQ(RequestBudgetBytes(table.Of("", 20 * SECOND_US), 10'000'000), 500'000U)
        << "the other says nothing";
}

} // namespace
} // namespace arqctl::report_metrics_test
