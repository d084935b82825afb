#include "arqrx/cli/command_line.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <vector>

namespace {

using arqrx::CommandLine;

CommandLine Read(std::initializer_list<const char*> words)
{
    std::vector<const char*> all { "arqrx" };
    all.insert(all.end(), words);
    return arqrx::ReadCommandLine(static_cast<int>(all.size()), all.data());
}

arqrx::Options OptionsOf(std::initializer_list<const char*> words)
{
    const CommandLine line = Read(words);
    EXPECT_TRUE(line.isRunning) << line.text;
    return line.options;
}

std::string ErrorOf(std::initializer_list<const char*> words)
{
    const CommandLine line = Read(words);
    EXPECT_TRUE(line.isError);
    EXPECT_FALSE(line.isRunning);
    return line.text;
}

TEST(ArqrxCommandLine, AProxyAloneIsPingedAndAskedWithARandomId)
{
    const arqrx::Options options = OptionsOf({ "10.0.0.1" });
    EXPECT_EQ(options.proxyHost, "10.0.0.1");
    EXPECT_EQ(options.pingPort, 10000);
    EXPECT_EQ(options.requestPort, 7020);
    EXPECT_TRUE(options.settings.isPinging);
    EXPECT_TRUE(options.settings.isAsking);
    EXPECT_NE(options.settings.streamId, 0U);
    EXPECT_NE(options.settings.streamId, OptionsOf({ "10.0.0.1" }).settings.streamId);
}

TEST(ArqrxCommandLine, EveryAmountReachesTheSettings)
{
    const arqrx::Options options
        = OptionsOf({ "10.0.0.1:21", "--request-port=22", "--id", "0x51", "--latency", "1.5s",
            "--ping-interval", "2s", "--hold-off", "50ms", "--ring", "8192", "--proxy-bit-rate", "8M",
            "--rejoin-after", "4s", "--stay-away", "0", "--max-packets", "1000", "--receive-buffer", "4M",
            "--bind", "10.0.0.2:23", "--write-buffer", "64k", "--interval", "10s", "--duration", "30s",
            "--exit-after-silence", "5s", "--max-loss", "0.1%", "--drain", "--json", "--quiet" });
    EXPECT_EQ(options.pingPort, 21);
    EXPECT_EQ(options.requestPort, 22);
    EXPECT_EQ(options.settings.streamId, 0x51U);
    EXPECT_EQ(options.settings.latencyUs, 1'500'000);
    EXPECT_EQ(options.settings.pingIntervalUs, 2'000'000);
    EXPECT_EQ(options.settings.holdOffUs, 50'000);
    EXPECT_EQ(options.settings.ringPackets, 8192U);
    EXPECT_EQ(options.settings.proxyBitRate, 8'000'000U);
    EXPECT_EQ(options.settings.silenceUs, 4'000'000);
    EXPECT_EQ(options.settings.rejoinAfterUs, 0);
    EXPECT_EQ(options.settings.mostPackets, 1000U);
    EXPECT_EQ(options.receiveBufferBytes, 4'000'000);
    EXPECT_EQ(options.bind, (common::Endpoint { 0x0A000002, 23 }));
    EXPECT_EQ(options.writeBufferBytes, 64'000);
    EXPECT_EQ(options.intervalUs, 10'000'000);
    EXPECT_EQ(options.durationUs, 30'000'000);
    EXPECT_EQ(options.exitAfterSilenceUs, 5'000'000);
    EXPECT_EQ(options.mostLoss, 0.001);
    EXPECT_TRUE(options.isDraining && options.isJson && options.isQuiet);
}

TEST(ArqrxCommandLine, ListeningNeitherPingsNorHasAnIdAndAsksOnlyWhoIsNamed)
{
    const arqrx::Options alone = OptionsOf({ "--listen", "5000" });
    EXPECT_EQ(alone.listen, (common::Endpoint { 0, 5000 }));
    EXPECT_FALSE(alone.settings.isPinging || alone.settings.isAsking);
    EXPECT_EQ(alone.settings.streamId, 0U);
    const arqrx::Options asking
        = OptionsOf({ "--listen", "127.0.0.2:5000", "--proxy-request", "10.0.0.1:7021" });
    EXPECT_FALSE(asking.settings.isPinging);
    EXPECT_TRUE(asking.settings.isAsking);
    EXPECT_EQ(asking.requestPort, 7021);
}

TEST(ArqrxCommandLine, AGroupIsOnlyHeardOrAlsoAskedFor)
{
    EXPECT_FALSE(OptionsOf({ "--group", "239.1.1.1:5000" }).settings.isAsking);
    const arqrx::Options both = OptionsOf({ "--group", "239.1.1.1:5000", "--interface", "eth1", "10.0.0.1" });
    EXPECT_TRUE(both.settings.isAsking && both.settings.isPinging);
    EXPECT_EQ(both.networkInterface, "eth1");
}

TEST(ArqrxCommandLine, OutputsAddUp)
{
    const arqrx::Options options
        = OptionsOf({ "h", "--output", "udp://a:1", "--output", "-", "--output", "file:x", "--strip-rtp" });
    EXPECT_EQ(OptionsOf({ "--output", "-", "h" }).proxyHost, "h");
    ASSERT_EQ(options.outputs.size(), 3U);
    EXPECT_EQ(options.outputs[2].path, "x");
    EXPECT_TRUE(options.isStripping);
}

TEST(ArqrxCommandLine, MetricsAreOnThisHostUnlessToldOtherwise)
{
    EXPECT_EQ(OptionsOf({ "h", "--metrics", "9750" }).metrics, "127.0.0.1:9750");
    EXPECT_EQ(OptionsOf({ "h", "--metrics", "10.0.0.1:9750" }).metrics, "10.0.0.1:9750");
    EXPECT_EQ(OptionsOf({ "h", "--metrics", "*:9750" }).metrics, "0.0.0.0:9750");
}

TEST(ArqrxCommandLine, ReportsGoToTheServerUnderTheNameThatWasGiven)
{
    const arqrx::Options options
        = OptionsOf({ "h", "--report", "wall:8080/edge1/2", "--report-name", "studio b" });
    EXPECT_EQ(options.report, (arqrx::ReportAddress { "wall", 8080, "edge1/2" }));
    EXPECT_EQ(options.reportName, "studio b");
    EXPECT_EQ(OptionsOf({ "h" }).report.host, "");
    EXPECT_EQ(ErrorOf({ "h", "--report", "wall" }), "--report: 'wall' is not HOST:PORT or HOST:PORT/CHANNEL");
    EXPECT_EQ(ErrorOf({ "h", "--report", "wall:1", "--report-name", "" }),
        "--report-name: '' is not a name of 1 to 64 bytes without control characters");
    EXPECT_EQ(ErrorOf({ "h", "--report-name", "x" }), "--report-name goes with --report HOST:PORT");
}

TEST(ArqrxCommandLine, FailingOnLossAllowsNone)
{
    EXPECT_FALSE(OptionsOf({ "h" }).mostLoss.has_value());
    EXPECT_EQ(OptionsOf({ "h", "--fail-on-loss" }).mostLoss, 0.0);
}

TEST(ArqrxCommandLine, EachWrongValueIsTold)
{
    EXPECT_EQ(
        ErrorOf({ "h", "--latency", "600" }), "--latency: '600' is not a time; write 600ms, 1s or 250us");
    EXPECT_EQ(ErrorOf({ "h", "--request-port", "0" }), "--request-port: '0' is not a port from 1 to 65535");
    EXPECT_EQ(
        ErrorOf({ "h", "--request-port", "7020x" }), "--request-port: '7020x' is not a port from 1 to 65535");
    EXPECT_EQ(
        ErrorOf({ "h", "--ring", "65537" }), "--ring: '65537' is not a number of packets from 1 to 65536");
    EXPECT_EQ(ErrorOf({ "h", "--proxy-bit-rate", "5G" }),
        "--proxy-bit-rate: '5G' is not a bit rate up to 4.2G; write 50M or 800k");
    EXPECT_EQ(ErrorOf({ "h", "--receive-buffer", "63999" }),
        "--receive-buffer: '63999' is not a size from 64k to 1G; write 8M or 64k");
    EXPECT_EQ(ErrorOf({ "h", "--bind", "eth0" }), "--bind: 'eth0' is not ADDRESS:PORT, ADDRESS or PORT");
    EXPECT_EQ(ErrorOf({ "--group", "239.1.1.1" }),
        "--group: '239.1.1.1' is not ADDRESS:PORT, with a port from 1 to 65535");
    EXPECT_EQ(ErrorOf({ "--listen", "0" }), "--listen: '0' is not ADDRESS:PORT, with a port from 1 to 65535");
    EXPECT_EQ(ErrorOf({ "h:0" }), "PROXY: 'h:0' is not HOST or HOST:PING_PORT");
    for (const char* text : { "x", "0", "127.0.0.1:0" })
        EXPECT_EQ(ErrorOf({ "h", "--metrics", text }),
            std::string("--metrics: '") + text
                + "' is not ADDRESS:PORT or PORT, with a port from 1 to 65535");
    EXPECT_EQ(ErrorOf({ "h", "--max-loss", "2" }), "--max-loss: '2' is not a share; write 0.1% or 0.001");
    EXPECT_EQ(ErrorOf({ "h", "--output", "tcp://a:1" }),
        "--output: 'tcp://a:1': an output is udp://HOST:PORT, rtp://HOST:PORT, file:PATH or - (standard output)");
    EXPECT_EQ(ErrorOf({ "h", "--id", "0" }),
        "--id: '0' is not a number from 1 to 4294967295 (or 0x1 to 0xFFFFFFFF), auto or none");
}

TEST(ArqrxCommandLine, WhatDoesNotGoTogetherIsTold)
{
    EXPECT_EQ(ErrorOf({ "h", "--proxy-request", "g" }),
        "--proxy-request goes with --listen; a PROXY is asked at --request-port");
    EXPECT_EQ(ErrorOf({ "h", "--listen", "5000" }),
        "--listen is for a stream that is not pinged for; with a PROXY use --bind, perhaps with --no-ping");
    EXPECT_EQ(ErrorOf({ "h", "--listen", "5000", "--proxy-request", "g" }),
        "PROXY and --proxy-request are two proxies; name one");
    EXPECT_EQ(ErrorOf({}), "say where the stream comes from: PROXY[:PING_PORT], --group or --listen");
}

TEST(ArqrxCommandLine, HelpAndVersionAreAnswers)
{
    const CommandLine help = Read({ "--help" });
    EXPECT_FALSE(help.isError || help.isRunning);
    EXPECT_NE(help.text.find("Examples:"), std::string::npos);
    const CommandLine version = Read({ "--version" });
    EXPECT_FALSE(version.isError || version.isRunning);
    EXPECT_EQ(version.text.substr(0, 6), "arqrx ");
}

TEST(ArqrxCommandLine, HelpFitsATerminal)
{
    const std::string text = Read({ "--help" }).text;
    for (size_t begin = 0; begin < text.size();) {
        const size_t end = text.find('\n', begin);
        ASSERT_NE(end, std::string::npos);
        EXPECT_LT(end - begin, 80U) << text.substr(begin, end - begin);
        begin = end + 1;
    }
}

} // namespace
