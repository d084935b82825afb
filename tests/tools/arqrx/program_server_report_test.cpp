#include "arqrx/cli/server_report.h"

#include <gtest/gtest.h>

#include <limits>
#include <nlohmann/json.hpp>

#include "arqrx/cli/command_line.h"

namespace {

using namespace arqrx;
using nlohmann::json;

Options Reporting()
{
    Options options;
    options.proxyHost = "10.0.0.1";
    EXPECT_EQ(Contradiction(options), "");
    options.report = { "10.0.0.5", 8080, "" };
    options.reportName = "studio-b";
    return options;
}

Sample Counted(uint64_t received)
{
    Sample sample;
    sample.runUs = 1'500'000;
    sample.sinceMediaUs = 2000;
    sample.proxy = "10.0.0.1:10000";
    sample.core.received = received;
    sample.core.receivedBytes = received * 1328;
    sample.core.resends = 9;
    sample.core.missing = 12;
    sample.core.recovered = 8;
    sample.core.lost = 3;
    sample.core.waiting = 1;
    sample.core.duplicates = 2;
    sample.core.late = 4;
    sample.core.requests = 5;
    sample.core.numbersAsked = 17;
    sample.core.mostAsked = 6;
    sample.core.bufferedUs = 598'400;
    sample.core.jitterUs = 250;
    return sample;
}

TEST(ServerReport, HasTheFieldsOfAReceiverAndNoOther)
{
    ServerReport report("10.0.0.1:10000", Reporting());
    (void)report.Interval({}, 0);
    const std::string text = report.Interval(Counted(1000), 0);
    EXPECT_EQ(json::parse(text), json::parse(R"({"arqrx": 1, "name": "studio-b", "run_s": 1.5,
        "stream": "10.0.0.1:10000", "proxy": "10.0.0.1:10000", "silent_s": 0.002, "packets_received": 1000,
        "packets_resent": 9, "packets_missing": 12, "packets_recovered": 8, "packets_lost": 3,
        "packets_waiting": 1, "packets_duplicate": 2, "packets_late": 4, "requests": 5, "numbers_asked": 17,
        "most_asked": 6, "window_ms": 687, "latency_ms": 600.0, "buffer_ms": 598.4, "jitter_ms": 0.25,
        "packet_bytes": 1328.0, "bit_rate": 7082667})"));
    EXPECT_EQ(text.find('\n'), std::string::npos);
}

TEST(ServerReport, NamesItsChannelWhenToldAndSaysWhichIsTheLast)
{
    Options options = Reporting();
    options.report.channel = "edge1/2";
    options.settings.latencyUs = 1'000'000;
    ServerReport report("x", options);
    const json last = json::parse(report.Last(Counted(10), {}, 0));
    EXPECT_EQ(last["channel"], "edge1/2");
    EXPECT_EQ(last["latency_ms"], 1000);
    EXPECT_EQ(last["final"], true);
    EXPECT_FALSE(last.contains("bit_rate"));
}

TEST(ServerReport, TheMeanSizeIsThatOfTheLastInterval)
{
    ServerReport report("x", Reporting());
    (void)report.Interval(Counted(1000), 0);
    Sample later = Counted(1000);
    later.core.received += 10;
    later.core.receivedBytes += 2000;
    EXPECT_EQ(json::parse(report.Interval(later, 0))["packet_bytes"], 200);
    EXPECT_NEAR(json::parse(report.Interval(later, 0))["packet_bytes"].get<double>(), 1317, 1)
        << "nothing came: of all";
    ServerReport silent("x", Reporting());
    EXPECT_FALSE(json::parse(silent.Interval({}, 0)).contains("packet_bytes"));
}

TEST(ServerReport, FitsADatagramHoweverLongItsTextsAndLargeItsCounts)
{
    Options options = Reporting();
    options.reportName = std::string(LONGEST_REPORT_NAME, '"');
    options.report.channel = std::string(LONGEST_REPORT_CHANNEL, '\\');
    Sample sample = Counted(1);
    for (uint64_t Figures::*count : { &Figures::received, &Figures::resends, &Figures::missing,
             &Figures::recovered, &Figures::lost, &Figures::waiting, &Figures::duplicates, &Figures::late,
             &Figures::requests, &Figures::numbersAsked })
        sample.core.*count = std::numeric_limits<uint64_t>::max();
    sample.core.roundTripUs = sample.core.bufferedUs = sample.core.jitterUs = sample.sinceMediaUs
        = sample.runUs = std::numeric_limits<int64_t>::max();
    ServerReport report(std::string(5000, '\n'), options);
    const std::string text = report.Interval(sample, 0);
    EXPECT_LE(text.size(), LONGEST_SERVER_REPORT);
    EXPECT_EQ(json::parse(text)["channel"], options.report.channel);
    EXPECT_EQ(json::parse(text)["packets_lost"], std::numeric_limits<uint64_t>::max());
}

TEST(ReportAddress, IsAServerAndPerhapsAChannel)
{
    ReportAddress address;
    std::string problem;
    EXPECT_TRUE(ParseReportAddress("10.0.0.5:8080", address, problem));
    EXPECT_EQ(address, (ReportAddress { "10.0.0.5", 8080, "" }));
    EXPECT_TRUE(ParseReportAddress("wall:8080/edge1/2", address, problem));
    EXPECT_EQ(address, (ReportAddress { "wall", 8080, "edge1/2" }));
    EXPECT_TRUE(ParseReportAddress("wall:8080//tmp/x/ctrl", address, problem));
    EXPECT_EQ(address.channel, "/tmp/x/ctrl");
    EXPECT_TRUE(ParseReportAddress("wall:1/" + std::string(128, 'x'), address, problem));
}

TEST(ReportAddress, WhatIsNoneLeavesItAsItWas)
{
    const ReportAddress before { "a", 1, "b" };
    ReportAddress address = before;
    std::string problem;
    for (const std::string text :
        { "", "10.0.0.5", ":8080", "h:0", "h:65536", "h:80/", "/1", "h:80/a\nb", "udp://h:80", "h" }) {
        EXPECT_FALSE(ParseReportAddress(text, address, problem)) << text;
        EXPECT_NE(problem, "") << text;
    }
    EXPECT_FALSE(ParseReportAddress("wall:1/" + std::string(129, 'x'), address, problem));
    EXPECT_EQ(address, before);
}

TEST(ReportAddress, ThisMachinesNameCanStandInReports)
{
    EXPECT_TRUE(IsReportText(HostName(), LONGEST_REPORT_NAME)) << HostName();
}

} // namespace
