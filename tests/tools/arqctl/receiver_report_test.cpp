#include "arqctl/serve/receiver_report.h"

#include <gtest/gtest.h>

#include <random>

#include "arqrx/cli/server_report.h"

namespace arqctl::receiver_report_test {
namespace {

using nlohmann::json;

json Whole()
{
    return json::parse(
        R"({"arqrx": 1, "name": "studio-b", "channel": "edge1/2", "run_s": 12.5, "stream": "h:10000",
        "proxy": "10.0.0.1:10000", "silent_s": 0.002, "packets_received": 1000, "packets_resent": 9,
        "packets_missing": 12, "packets_recovered": 8, "packets_lost": 3, "packets_waiting": 1,
        "packets_duplicate": 2, "packets_late": 4, "requests": 5, "numbers_asked": 17, "most_asked": 6,
        "window_ms": 687, "latency_ms": 600.0, "buffer_ms": 598.4, "round_trip_ms": 20.5, "jitter_ms": 0.25,
        "packet_bytes": 1328, "bit_rate": 7082667, "final": true})");
}

std::string ProblemOf(const std::string& text)
{
    ReceiverReport report;
    report.name = "before";
    const ReceiverReport before = report;
    std::string problem;
    EXPECT_FALSE(ParseReceiverReport(text, report, problem)) << text;
    EXPECT_EQ(report, before) << text;
    return problem;
}

std::string ProblemWith(const std::string& field, const json& value)
{
    json object = Whole();
    object[field] = value;
    return ProblemOf(object.dump());
}

TEST(ReceiverReport, EveryFieldIsRead)
{
    ReceiverReport report;
    std::string problem;
    ASSERT_TRUE(ParseReceiverReport(Whole().dump(), report, problem)) << problem;
    ReceiverReport wanted { "studio-b", "edge1/2", "h:10000", "10.0.0.1:10000", 1000, 9, 12, 8, 3, 1, 2, 4, 5,
        17, 6, 12.5, 0.002, 687, 600, 598.4, 20.5, 0.25, 1328, 7082667, true };
    EXPECT_EQ(report, wanted);
}

TEST(ReceiverReport, WhatTheReceiverWritesIsWhatIsRead)
{
    arqrx::Options options;
    options.report = { "wall", 8080, "2" };
    options.reportName = "studio-b";
    arqrx::Sample sample;
    sample.runUs = 1'500'000;
    sample.core.received = 10;
    sample.core.receivedBytes = 13'280;
    sample.core.missing = sample.core.lost = 3;
    sample.core.mostAsked = 2;
    ReceiverReport report;
    std::string problem;
    ASSERT_TRUE(ParseReceiverReport(arqrx::ServerReport("h:1", options).Interval(sample, 0), report, problem))
        << problem;
    EXPECT_EQ(report.channel, "2");
    EXPECT_EQ(report.runS, 1.5);
    EXPECT_EQ(report.lost, 3U);
    EXPECT_EQ(report.mostAsked, 2U);
    EXPECT_EQ(report.packetBytes, 1328);
    EXPECT_EQ(report.latencyMs, 600);
    EXPECT_LT(report.roundTripMs, 0) << "not known";
}

TEST(ReceiverReport, WhatIsNotKnownOrComesLaterIsPassedOver)
{
    json object = Whole();
    object["colour"] = "red";
    object["more"] = json::parse(R"({"a": [1, -2, null, {"name": 5}], "arqrx": 7})");
    object["less"] = -1;
    object["none"] = nullptr;
    object.erase("jitter_ms");
    ReceiverReport report;
    std::string problem;
    EXPECT_TRUE(ParseReceiverReport(object.dump(), report, problem)) << problem;
    EXPECT_EQ(report.name, "studio-b");
    EXPECT_LT(report.jitterMs, 0);
}

TEST(ReceiverReport, WhatIsNoReportIsRefused)
{
    for (const char* text : { "", " ", "{", "[]", "[{}]", "1", "null", "\"arqrx\"", "true", "-1", "1.5",
             "{}x", "{\"arqrx\":1,}", "\x80", "NaN" })
        EXPECT_FALSE(ProblemOf(text).empty()) << text;
    EXPECT_EQ(ProblemOf("{}"), "arqrx is missing");
    EXPECT_EQ(ProblemOf("7"), "it is no JSON object");
    EXPECT_EQ(ProblemOf(Whole().dump() + "{}"), "it is no JSON object");
    EXPECT_EQ(ProblemOf(std::string(1401, ' ')), "it is longer than 1400 bytes");
}

TEST(ReceiverReport, AFieldOfAnotherKindOrRangeIsRefusedByItsName)
{
    EXPECT_EQ(ProblemWith("arqrx", 2), "arqrx is a version that this program does not know");
    EXPECT_EQ(ProblemWith("name", 5), "name is of another kind");
    EXPECT_EQ(ProblemWith("name", ""), "its name is empty");
    EXPECT_EQ(ProblemWith("channel", nullptr), "channel is of another kind");
    EXPECT_EQ(ProblemWith("final", 1), "final is of another kind");
    EXPECT_EQ(ProblemWith("packets_lost", true), "packets_lost is of another kind");
    EXPECT_EQ(ProblemWith("packets_lost", "3"), "packets_lost is of another kind");
    EXPECT_EQ(ProblemWith("packets_lost", 3.5), "packets_lost is of another kind");
    EXPECT_EQ(ProblemWith("packets_lost", -3), "packets_lost is negative");
    EXPECT_EQ(ProblemWith("packets_lost", MOST_COUNT + 1), "packets_lost is too large");
    EXPECT_EQ(ProblemWith("packets_lost", json::array({ 3 })), "packets_lost is of another kind");
    EXPECT_EQ(ProblemWith("run_s", json::object()), "run_s is of another kind");
    EXPECT_EQ(ProblemWith("run_s", -0.5), "run_s is negative");
    EXPECT_EQ(ProblemWith("round_trip_ms", 1e10), "round_trip_ms is too large");
    EXPECT_EQ(ProblemWith("bit_rate", nullptr), "bit_rate is of another kind") << "as NaN is written";
}

TEST(ReceiverReport, NumbersBeyondAllRangesAreRefused)
{
    for (const char* number :
        { "1e999", "-1e999", "NaN", "Infinity", "18446744073709551616", "99999999999999999999999" }) {
        std::string text = Whole().dump();
        text.replace(text.find("12.5"), 4, number);
        EXPECT_FALSE(ProblemOf(text).empty()) << number;
    }
}

TEST(ReceiverReport, AFieldThatIsMissingOrThereTwiceIsRefused)
{
    for (const char* field : { "arqrx", "name", "run_s", "packets_received", "most_asked" }) {
        json object = Whole();
        object.erase(field);
        EXPECT_EQ(ProblemOf(object.dump()), std::string(field) + " is missing");
    }
    const std::string text = Whole().dump();
    EXPECT_EQ(ProblemOf("{\"name\":\"x\"," + text.substr(1)), "name stands there twice");
}

TEST(ReceiverReport, DeepJsonIsRefusedWithoutGoingThere)
{
    std::string deep(600, '[');
    deep += std::string(600, ']');
    EXPECT_EQ(ProblemOf("{\"x\":" + deep + "}"), "it is nested too deep");
    EXPECT_EQ(ProblemOf(std::string(1400, '[')), "it is no JSON object");
    EXPECT_FALSE(ProblemOf("{\"x\":{\"x\":{\"x\":{\"x\":{\"x\":{\"x\":{\"x\":{\"x\":{").empty());
}

TEST(ReceiverReport, TextsComeOutCleanAndCut)
{
    json object = Whole();
    object["name"] = "a\n\u202E" + std::string(100, 'x');
    object["channel"] = std::string(200, 'c');
    ReceiverReport report;
    std::string problem;
    ASSERT_TRUE(ParseReceiverReport(object.dump(), report, problem)) << problem;
    EXPECT_EQ(report.name, "a??" + std::string(61, 'x'));
    EXPECT_EQ(report.channel, std::string(128, 'c'));
}

// Bytes of a good report changed, cut, doubled and put in at random: each is read or refused, nothing else, and what is
// read is within its limits.
TEST(ReceiverReport, BrokenDatagramsAreReadOrRefused)
{
    std::mt19937 random(3);
    const std::string good = Whole().dump();
    const std::string pieces[]
        = { "{", "}", "[", "]", "\"", ":", ",", "-", "1e308", "1e999", "null", "\\u0000", "\\ud800",
              "\"packets_lost\":", "\"name\":", "\x80", "9999999999999999999", std::string(1, '\0') };
    int readCount = 0;
    for (int round = 0; round < 40'000; ++round) {
        std::string text = good;
        for (size_t changes = 1 + random() % 3; changes > 0; --changes) {
            const size_t at = random() % (text.size() + 1);
            if (random() % 4 == 0)
                text.erase(at, 1 + random() % 20);
            else if (random() % 2 == 0 && at < text.size())
                text[at] = static_cast<char>(random());
            else
                text.insert(at, pieces[random() % std::size(pieces)]);
        }
        ReceiverReport report;
        std::string problem;
        const bool isRead = ParseReceiverReport(text, report, problem);
        EXPECT_EQ(isRead, problem.empty());
        readCount += isRead ? 1 : 0;
        EXPECT_LE(report.name.size(), ReceiverReport::LONGEST_NAME);
        for (const ReportCount& field : REPORT_COUNTS)
            EXPECT_LE(report.*field.count, MOST_COUNT);
        for (const ReportReading& field : REPORT_READINGS)
            EXPECT_TRUE(report.*field.value >= -1 && report.*field.value <= field.most) << text;
    }
    EXPECT_GT(readCount, 1000);
}

TEST(ReceiverReport, AsAnObjectHasWhatIsKnown)
{
    ReceiverTable table;
    ReceiverReport report;
    std::string problem;
    json object = Whole();
    object.erase("channel");
    object.erase("final");
    object.erase("round_trip_ms");
    ASSERT_TRUE(ParseReceiverReport(object.dump(), report, problem)) << problem;
    ASSERT_TRUE(table.Take(report, 0x0A000007, 5, 1'000'000));
    object.erase("arqrx");
    object["address"] = "10.0.0.7";
    object["age_s"] = 2.5;
    object["state"] = "live";
    object["restarts"] = 0;
    EXPECT_EQ(json(ReportObject(table.Of("", 3'500'000).front())), object);
}

} // namespace
} // namespace arqctl::receiver_report_test
