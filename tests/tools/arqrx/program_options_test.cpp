#include "arqrx/program/options.h"

#include <gtest/gtest.h>

namespace {

using namespace arqrx;

TEST(ArqrxOptions, AStreamIdIsANumberOrNone)
{
    uint32_t id = 7;
    EXPECT_TRUE(ParseStreamId("1", id));
    EXPECT_EQ(id, 1U);
    EXPECT_TRUE(ParseStreamId("4294967295", id));
    EXPECT_EQ(id, 0xFFFFFFFFU);
    EXPECT_TRUE(ParseStreamId("0x1A2b", id));
    EXPECT_EQ(id, 0x1A2BU);
    EXPECT_TRUE(ParseStreamId("none", id));
    EXPECT_EQ(id, 0U);
}

TEST(ArqrxOptions, WhatIsNoStreamIdLeavesItAsItWas)
{
    uint32_t id = 7;
    for (const char* text : { "", "0", "0x0", "0x", "4294967296", "-1", "1x", "0x1G", " 1", "None" })
        EXPECT_FALSE(ParseStreamId(text, id)) << text;
    EXPECT_EQ(id, 7U);
}

TEST(ArqrxOptions, AHostMayHaveAPort)
{
    std::string host;
    uint16_t port = 10000;
    EXPECT_TRUE(ParseHost("proxy.example.net", host, port));
    EXPECT_EQ(host, "proxy.example.net");
    EXPECT_EQ(port, 10000);
    EXPECT_TRUE(ParseHost("10.0.0.1:65535", host, port));
    EXPECT_EQ(host, "10.0.0.1");
    EXPECT_EQ(port, 65535);
}

TEST(ArqrxOptions, WhatIsNoHostIsRefused)
{
    std::string host = "before";
    uint16_t port = 1;
    for (const char* text : { "", ":5", "a:", "a:0", "a:65536", "a:b", "udp://a", "a b", "a:1:2", "::1" })
        EXPECT_FALSE(ParseHost(text, host, port)) << text;
    EXPECT_EQ(host, "before");
    EXPECT_EQ(port, 1);
}

Options WithProxy()
{
    Options options;
    options.proxyHost = "10.0.0.1";
    return options;
}

TEST(ArqrxOptions, OneSourceIsNeeded)
{
    EXPECT_EQ(Contradiction(WithProxy()), "");
    EXPECT_EQ(Contradiction({}), "say where the stream comes from: PROXY[:PING_PORT], --group or --listen");
}

TEST(ArqrxOptions, AGroupIsAGroupAndListeningIsNot)
{
    Options options;
    options.group = common::Endpoint { 0xEF010101, 5000 };
    EXPECT_EQ(Contradiction(options), "");
    options.listen = common::Endpoint { 0, 5000 };
    EXPECT_EQ(Contradiction(options), "--listen and --group are two sources; start one receiver for each");
    options.group.reset();
    EXPECT_EQ(Contradiction(options), "");
    options.listen->address = 0xE0000001;
    EXPECT_EQ(Contradiction(options),
        "--listen takes an address of this machine; for a multicast group use --group");
    options.listen.reset();
    options.group = common::Endpoint { 0x0A000001, 5000 };
    EXPECT_EQ(Contradiction(options),
        "--group takes an address from 224.0.0.0 to 239.255.255.255; for others use --listen");
}

TEST(ArqrxOptions, AnInterfaceNeedsAGroup)
{
    Options options = WithProxy();
    options.networkInterface = "eth0";
    EXPECT_EQ(Contradiction(options),
        "--interface is the one on which --group is joined; without a group use --bind ADDRESS");
}

TEST(ArqrxOptions, ListeningAndBindingAreTheSame)
{
    Options options;
    options.listen = common::Endpoint { 0, 5000 };
    options.bind = common::Endpoint {};
    EXPECT_EQ(Contradiction(options), "--listen says already where to bind; leave --bind out");
}

// A time of the settings may be `least` to `most` microseconds, and what is outside is refused with these words.
void ExpectLimits(int64_t Settings::*time, int64_t least, int64_t most, const char* refusal)
{
    Options options = WithProxy();
    for (const int64_t us : { least, most }) {
        options.settings.*time = us;
        EXPECT_EQ(Contradiction(options), "") << us;
    }
    for (const int64_t us : { least - 1, most + 1 }) {
        options.settings.*time = us;
        EXPECT_EQ(Contradiction(options), refusal) << us;
    }
}

TEST(ArqrxOptions, LatencyGoesFromTenMillisecondsToAMinute)
{
    ExpectLimits(&Settings::latencyUs, 10'000, 60'000'000, "--latency goes from 10ms to 60s");
}

TEST(ArqrxOptions, PingsComeInTimeForTheProxy)
{
    ExpectLimits(&Settings::pingIntervalUs, 100'000, 4'900'000,
        "--ping-interval goes from 100ms to 4.9s: the proxy drops who is silent for 5s");
}

TEST(ArqrxOptions, SilenceIsNotAPause)
{
    Options options = WithProxy();
    options.settings.silenceUs = 500'000;
    EXPECT_EQ(Contradiction(options), "");
    options.settings.silenceUs = 499'999;
    EXPECT_EQ(Contradiction(options), "--rejoin-after is at least 500ms");
}

TEST(ArqrxOptions, FiguresComeTenTimesASecondAtMost)
{
    Options options = WithProxy();
    options.intervalUs = 99'999;
    EXPECT_EQ(Contradiction(options), "--interval is at least 100ms");
}

OutputAddress Output(OutputKind kind, const std::string& text)
{
    OutputAddress output;
    output.kind = kind;
    output.text = text;
    return output;
}

TEST(ArqrxOptions, NoOutputIsNamedTwice)
{
    Options options = WithProxy();
    options.outputs = { Output(OutputKind::File, "file:a"), Output(OutputKind::StandardOutput, "-") };
    EXPECT_EQ(Contradiction(options), "");
    EXPECT_TRUE(options.WritesToStandardOutput());
    options.outputs.push_back(Output(OutputKind::File, "file:a"));
    EXPECT_EQ(Contradiction(options), "'file:a' is an output twice");
    options.outputs.back() = Output(OutputKind::StandardOutput, "-");
    EXPECT_EQ(Contradiction(options), "standard output can be one output only");
}

TEST(ArqrxOptions, StrippingAndKeepingContradictEachOther)
{
    Options options = WithProxy();
    options.isStripping = true;
    EXPECT_EQ(Contradiction(options), "");
    options.isKeepingRtp = true;
    EXPECT_EQ(Contradiction(options),
        "--strip-rtp and --keep-rtp contradict each other; name rtp:// outputs where RTP is wanted");
}

TEST(ArqrxOptions, APasswordNeedsSomethingThatDecrypts)
{
    Options options = WithProxy();
    options.passwordFile = "secret";
    EXPECT_EQ(Contradiction(options), "--password-file goes with --decrypt LIBRARY");
    options.decryptionLibrary = "./libsorvanex.so.1.0";
    EXPECT_EQ(Contradiction(options), "");
    options.passwordFile = "";
    EXPECT_EQ(Contradiction(options), "");
}

} // namespace
