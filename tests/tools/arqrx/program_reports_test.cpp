#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <nlohmann/json.hpp>
#include <set>

#include "arqrx/cli/json_report.h"
#include "arqrx/cli/metric_families.h"
#include "arqrx/program/fields.h"
#include "arqrx/program/text_report.h"

namespace {

using namespace arqrx;
using nlohmann::json;

constexpr int64_t NOON = 1'700'000'000; // 2023-11-14T22:13:20Z

Sample First()
{
    Sample sample;
    sample.runUs = 1'000'000;
    sample.sinceMediaUs = 0;
    sample.proxy = "10.0.0.1:10000";
    sample.core.received = 1000;
    sample.core.receivedBytes = 1'000'000;
    return sample;
}

Sample Second()
{
    Sample sample = First();
    sample.runUs = 2'000'000;
    sample.core.received = 1763;
    sample.core.receivedBytes = 2'001'500;
    sample.core.resends = 40;
    sample.core.missing = 42;
    sample.core.recovered = 39;
    sample.core.lost = 2;
    sample.core.waiting = 1;
    sample.core.played = 1700;
    sample.core.requests = 1;
    sample.core.numbersAsked = 45;
    sample.core.roundTripUs = 50'250;
    sample.core.bufferedUs = 598'400;
    sample.core.recoverP50Us = 51'200;
    sample.core.recoverP99Us = 160'100;
    return sample;
}

RunEnd EndOf(EndReason reason)
{
    RunEnd end;
    end.reason = reason;
    return end;
}

Options PingingOptions()
{
    Options options;
    options.proxyHost = "10.0.0.1";
    return options;
}

class InUtc : public testing::Test {
protected:
    InUtc()
    {
        (void)setenv("TZ", "UTC", 1);
        tzset();
    }
};

using TextReportTest = InUtc;

TEST_F(TextReportTest, ALineHasWhatTheIntervalBrought)
{
    TextReport report(PingingOptions());
    (void)report.Interval(First(), NOON);
    EXPECT_EQ(report.Interval(Second(), NOON),
        "22:13:20   8.012      763       42       39       2       1    50.2      598.4\n");
}

TEST_F(TextReportTest, TheHeadStandsOverItsColumnsAndComesAgain)
{
    TextReport report(PingingOptions());
    const std::string first = report.Interval(First(), NOON);
    EXPECT_EQ(first,
        "    time  Mbit/s  packets  missing recover.    lost waiting  rtt ms  buffer ms\n"
        "22:13:20   8.000     1000        0        0       0       0       -        0.0\n");
    for (int i = 1; i < 20; ++i)
        EXPECT_EQ(report.Interval(Second(), NOON).find("time"), std::string::npos);
    EXPECT_EQ(report.Interval(Second(), NOON).find("    time"), 0U);
}

TEST_F(TextReportTest, SilenceIsSaidInWords)
{
    TextReport report(PingingOptions());
    Sample sample = First();
    sample.core.received = 0;
    EXPECT_EQ(report.Interval(sample, NOON),
        "22:13:20 no media yet; pinging 10.0.0.1:10000: does the proxy run there?\n");
    sample.core.echoesBack = 1;
    EXPECT_EQ(report.Interval(sample, NOON),
        "22:13:20 no media yet; pinging 10.0.0.1:10000: it answers; does its input come?\n");
    sample = First();
    sample.sinceMediaUs = 2'000'000;
    EXPECT_EQ(report.Interval(sample, NOON), "22:13:20 nothing has come for 2 s\n");
    sample.core.received = 0;
    EXPECT_EQ(TextReport({}).Interval(sample, NOON),
        "22:13:20 no media yet; listening: does the proxy send to this machine?\n");
}

TEST_F(TextReportTest, TheEndTellsAllThatWasCounted)
{
    Sample last = Second();
    last.transportPackets = 7000;
    last.continuityErrors = 1;
    last.socketDrops = 3;
    last.outputs = { { "udp://10.0.0.9:1", 1700, 0, false, "" },
        { "file:x", 10, 1690, true, "No space left on device" } };
    EXPECT_EQ(TextReport(PingingOptions()).Last(last, EndOf(EndReason::Duration), NOON),
        "Ended after 2.0 s, as asked.\n"
        "  received   1763 packets, 40 of them sent again; 8.006 Mbit/s\n"
        "  missing    42 = 39 recovered + 2 lost + 1 waiting\n"
        "  played     1700 packets; 0 duplicates, 0 late, 0 reordered, 0 restarts\n"
        "  recovery   1 request for 45 numbers; round trip 50.2 ms\n"
        "  took       p50 51.2 ms, p99 160.1 ms from a gap to its packet\n"
        "  transport  1 continuity error in 7000 packets\n"
        "  kernel     3 datagrams dropped; raise net.core.rmem_max, --receive-buffer\n"
        "  output     udp://10.0.0.9:1: 1700 packets, 0 dropped\n"
        "  output     file:x: 10 packets, 1690 dropped; failed: No space left on device\n");
}

TEST_F(TextReportTest, TheEndTellsWhatWasDecrypted)
{
    Sample last = Second();
    last.decryption = { 1690, 7, 3 };
    const std::string text = TextReport(PingingOptions()).Last(last, EndOf(EndReason::Duration), NOON);
    EXPECT_NE(text.find("  decrypted  1690 packets, 7 in clear; 3 that could not be, not played\n"),
        std::string::npos);
}

TEST_F(TextReportTest, QuietSaysNothing)
{
    Options options = PingingOptions();
    options.isQuiet = true;
    TextReport report(options);
    EXPECT_EQ(report.Interval(First(), NOON), "");
    EXPECT_EQ(report.Last(First(), EndOf(EndReason::Signal), NOON), "");
}

TEST(News, TellWhatHasChangedOnce)
{
    Sample before = Second();
    Sample now = before;
    EXPECT_EQ(News(before, now), "");
    now.core.stops = 1;
    now.core.rejoins = 1;
    now.core.restarts = 1;
    now.proxy = "10.0.0.2:10000";
    now.outputs = { { "-", 1, 0, true, "its reader has gone" } };
    EXPECT_EQ(News(before, now),
        "the proxy's operator has stopped this stream; --stay-away says when it is joined anew\n"
        "nothing came for a while; joining anew\n"
        "play-out has begun afresh: the proxy's clock or its numbers jumped\n"
        "the proxy has moved to 10.0.0.2:10000\n"
        "output -: its reader has gone; it gets nothing any more\n");
    EXPECT_EQ(News(now, now), "");
}

TEST(News, TheFiveStopMessagesOfADeleteAreToldOnce)
{
    Sample before;
    Sample now;
    before.core.stops = 1;
    now.core.stops = 5;
    EXPECT_EQ(News(before, now), "");
    before.core.stops = 5;
    now.core.stops = 6;
    EXPECT_NE(News(before, now), "");
}

TEST(News, TellOnceThatPacketsCannotBeDecrypted)
{
    Sample before = Second();
    Sample now = before;
    now.decryption = { 5, 5, 0 };
    EXPECT_EQ(News(before, now), "");
    before = now;
    now.decryption->undecided = 1;
    EXPECT_EQ(News(before, now),
        "packets that cannot be decrypted come, and are not played: is the password that of the proxy's -Z?\n");
    before = now;
    now.decryption->undecided = 9;
    EXPECT_EQ(News(before, now), "");
}

TEST(JsonReport, EachLineIsOneObjectWithEveryCount)
{
    JsonReport report("10.0.0.1:10000", false);
    (void)report.Interval(First(), NOON);
    const std::string line = report.Interval(Second(), NOON);
    EXPECT_EQ(line.find('\n'), line.size() - 1);
    const json object = json::parse(line);
    EXPECT_EQ(object["time"], "2023-11-14T22:13:20Z");
    EXPECT_EQ(object["run_s"], 2.0);
    EXPECT_EQ(object["stream"], "10.0.0.1:10000");
    EXPECT_EQ(object["bit_rate"], 8'012'000);
    for (const CountField& field : COUNT_FIELDS)
        EXPECT_EQ(object[field.name], Second().core.*field.count) << field.name;
    EXPECT_EQ(object["packets_waiting"], 1);
    EXPECT_EQ(object["round_trip_ms"], 50.25);
    EXPECT_EQ(object["buffer_ms"], 598.4);
    EXPECT_FALSE(object.contains("final"));
}

TEST(JsonReport, WhatIsNotKnownIsLeftOut)
{
    Sample sample = First();
    sample.sinceMediaUs = -1;
    sample.proxy = "";
    const json object = json::parse(JsonReport("x", false).Interval(sample, NOON));
    for (const char* name : { "round_trip_ms", "recover_p50_ms", "recover_p99_ms", "play_late_p50_ms",
             "silent_s", "proxy", "outputs", "transport_packets" })
        EXPECT_FALSE(object.contains(name)) << name;
}

TEST(JsonReport, WhatWasDecryptedIsCountedWhereThatIsDone)
{
    Sample sample = First();
    EXPECT_FALSE(json::parse(JsonReport("x", false).Interval(sample, NOON)).contains("packets_decrypted"));
    sample.decryption = { 3, 2, 1 };
    const json object = json::parse(JsonReport("x", false).Interval(sample, NOON));
    EXPECT_EQ(object["packets_decrypted"], 3);
    EXPECT_EQ(object["packets_clear"], 2);
    EXPECT_EQ(object["packets_undecided"], 1);
}

TEST(JsonReport, TheLastObjectTellsReasonAndStatus)
{
    JsonReport report("x", true);
    EXPECT_EQ(report.Interval(First(), NOON), "");
    Sample last = Second();
    last.outputs = { { "file:\xFF", 1, 2, true, "No space left on device" } };
    const json object
        = json::parse(report.Last(last, { EndReason::Silence, ExitStatus::OutputFailed }, NOON));
    EXPECT_EQ(object["final"], true);
    EXPECT_EQ(object["reason"], "silence");
    EXPECT_EQ(object["status"], 5);
    EXPECT_EQ(object["outputs"][0]["dropped"], 2);
    EXPECT_EQ(object["outputs"][0]["error"], "No space left on device");
}

TEST(JsonReport, AnErrorIsAnObjectToo)
{
    EXPECT_EQ(JsonError("no \"proxy\"", ExitStatus::NoStart),
        "{\"error\":\"no \\\"proxy\\\"\",\"final\":true,\"status\":4}\n");
}

TEST(ExitStatusOf, TellsTheWorst)
{
    Options options;
    Sample sample;
    EXPECT_EQ(StatusOf(sample, options), ExitStatus::NoMedia);
    sample.core.received = 100;
    sample.core.played = 98;
    sample.core.lost = 2;
    EXPECT_EQ(StatusOf(sample, options), ExitStatus::Good);
    options.mostLoss = 0.02;
    EXPECT_EQ(StatusOf(sample, options), ExitStatus::Good);
    options.mostLoss = 0.0199;
    EXPECT_EQ(StatusOf(sample, options), ExitStatus::Loss);
    sample.outputs = { { "-", 1, 0, true, "" } };
    EXPECT_EQ(StatusOf(sample, options), ExitStatus::OutputFailed);
}

const prometheus::MetricFamily* FindFamily(
    const std::vector<prometheus::MetricFamily>& families, const std::string& name)
{
    for (const prometheus::MetricFamily& family : families) {
        if (family.name == name)
            return &family;
    }
    return nullptr;
}

TEST(MetricFamilies, CountsAreTotalsAndTimesAreSeconds)
{
    const auto families = MetricFamilies(Second(), "10.0.0.1:10000");
    const prometheus::MetricFamily* lost = FindFamily(families, "arqrx_packets_lost_total");
    ASSERT_NE(lost, nullptr);
    EXPECT_EQ(lost->type, prometheus::MetricType::Counter);
    EXPECT_EQ(lost->metric.at(0).counter.value, 2);
    EXPECT_EQ(lost->metric.at(0).label.at(0).value, "10.0.0.1:10000");
    const prometheus::MetricFamily* roundTrip = FindFamily(families, "arqrx_round_trip_seconds");
    ASSERT_NE(roundTrip, nullptr);
    EXPECT_EQ(roundTrip->type, prometheus::MetricType::Gauge);
    EXPECT_DOUBLE_EQ(roundTrip->metric.at(0).gauge.value, 0.05025);
}

TEST(MetricFamilies, WhatIsNotKnownIsLeftOut)
{
    const auto families = MetricFamilies(First(), "x");
    EXPECT_EQ(FindFamily(families, "arqrx_round_trip_seconds"), nullptr);
    EXPECT_EQ(FindFamily(families, "arqrx_output_packets_total"), nullptr);
}

TEST(MetricFamilies, WhatWasDecryptedIsCountedWhereThatIsDone)
{
    Sample sample = First();
    EXPECT_EQ(FindFamily(MetricFamilies(sample, "x"), "arqrx_packets_undecided_total"), nullptr);
    sample.decryption = { 3, 2, 1 };
    const auto families = MetricFamilies(sample, "x");
    const prometheus::MetricFamily* undecided = FindFamily(families, "arqrx_packets_undecided_total");
    ASSERT_NE(undecided, nullptr);
    EXPECT_EQ(undecided->metric.at(0).counter.value, 1);
    EXPECT_NE(FindFamily(families, "arqrx_packets_decrypted_total"), nullptr);
    EXPECT_NE(FindFamily(families, "arqrx_packets_clear_total"), nullptr);
}

TEST(MetricFamilies, OutputsHaveALabelEach)
{
    Sample sample = First();
    sample.outputs = { { "udp://a:1", 5, 0, false, "" }, { "file:x", 4, 1, true, "full" } };
    const auto families = MetricFamilies(sample, "x");
    const prometheus::MetricFamily* failed = FindFamily(families, "arqrx_output_failed");
    ASSERT_NE(failed, nullptr);
    EXPECT_EQ(failed->metric.at(0).gauge.value, 0);
    EXPECT_EQ(failed->metric.at(1).gauge.value, 1);
    EXPECT_EQ(failed->metric.at(1).label.at(1).value, "file:x");
}

TEST(MetricFamilies, EachNameIsThereOnceAndFollowsTheRules)
{
    std::set<std::string> names;
    for (const prometheus::MetricFamily& family : MetricFamilies(Second(), "x")) {
        EXPECT_TRUE(names.insert(family.name).second) << family.name;
        EXPECT_FALSE(family.help.empty()) << family.name;
        EXPECT_EQ(family.name.ends_with("_total"), family.type == prometheus::MetricType::Counter)
            << family.name;
    }
}

} // namespace
