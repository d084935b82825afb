#include "arqctl/core/proxy_options.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <vector>

namespace arqctl {

namespace {

// The options of "tx_proxy WORDS...".
ProxyOptions Accepted(std::initializer_list<const char*> words)
{
    std::vector<std::string> arguments { "tx_proxy" };
    arguments.insert(arguments.end(), words.begin(), words.end());
    ProxyOptions options;
    EXPECT_TRUE(ReadProxyOptions(arguments, options));
    return options;
}

bool IsRefused(std::initializer_list<const char*> words)
{
    std::vector<std::string> arguments { "tx_proxy" };
    arguments.insert(arguments.end(), words.begin(), words.end());
    ProxyOptions options;
    options.instance = 4711;
    const bool isTaken = ReadProxyOptions(arguments, options);
    EXPECT_TRUE(isTaken || options.instance == 4711); // left as it was
    return !isTaken;
}

} // namespace

TEST(ProxyOptionsOfACommandLine, WithoutOptionsAllIsAsTheProxysPageSays)
{
    const ProxyOptions options = Accepted({ "5000" });
    EXPECT_EQ(options.listenPort, 5000);
    EXPECT_EQ(options.mediaPort, 10000);
    EXPECT_EQ(options.requestPort, 7020);
    EXPECT_EQ(options.unicastPort, 0);
    EXPECT_EQ(options.ringPackets, 4096U);
    EXPECT_EQ(options.grossBitRate, 50'000'000);
    EXPECT_EQ(options.pacingBitRate, 0);
    EXPECT_EQ(options.instance, 1);
    EXPECT_EQ(options.interfaces, 0);
    EXPECT_TRUE(options.destinations.empty());
    EXPECT_EQ(options.group + options.idleAddress, "");
    EXPECT_FALSE(options.isRawInput || options.isEncrypting);
}

TEST(ProxyOptionsOfACommandLine, EachOptionGoesIntoItsSetting)
{
    const ProxyOptions options = Accepted({ "-1", "70", "-b", "5001", "-G", "20000000", "-n", "2", "-p",
        "5002", "-r", "5003", "-I", "7", "-X", "6000000", "-q", "5000", "-u", "-l", "x", "-N", "-h", "-a",
        ",10.0.0.1,,studio b,", "5004", "239.1.2.3" });
    const ProxyOptions wanted { .instance = 7,
        .listenPort = 5004,
        .group = "239.1.2.3",
        .idleAddress = "",
        .destinations = { "10.0.0.1", "studio b" },
        .mediaPort = 5002,
        .unicastPort = 5001,
        .requestPort = 5003,
        .ringPackets = 8192,
        .grossBitRate = 20'000'000,
        .pacingBitRate = 6'000'000,
        .interfaces = 2,
        .isRawInput = true,
        .isEncrypting = false };
    EXPECT_EQ(options, wanted);
}

TEST(ProxyOptionsOfACommandLine, LettersShareAWordAndStandBehindPositionalWords)
{
    const ProxyOptions options = Accepted({ "5000", "-uzX100", "239.1.1.1", "-p5002" });
    EXPECT_TRUE(options.isRawInput && options.isEncrypting);
    EXPECT_EQ(options.pacingBitRate, 100);
    EXPECT_EQ(options.mediaPort, 5002);
    EXPECT_EQ(options.listenPort, 5000);
    EXPECT_EQ(options.group, "239.1.1.1");
}

TEST(ProxyOptionsOfACommandLine, TwoDashesEndTheOptionsAndOneIsAPort)
{
    EXPECT_EQ(Accepted({ "-p", "2", "--", "-1" }).listenPort, 65535);
    EXPECT_EQ(Accepted({ "-" }).listenPort, 0);
    EXPECT_EQ(Accepted({ "-a", "--", "5" }).destinations, std::vector<std::string> { "--" });
    EXPECT_TRUE(IsRefused({ "--help" }));
}

TEST(ProxyOptionsOfACommandLine, TheLastOfTwoCounts)
{
    const ProxyOptions options = Accepted({ "-p", "1", "-a", "first", "-p", "2", "-a", "second", "9" });
    EXPECT_EQ(options.mediaPort, 2);
    EXPECT_EQ(options.destinations, std::vector<std::string> { "second" });
}

TEST(ProxyOptionsOfACommandLine, NumbersKeepTheirLowBits)
{
    const ProxyOptions options = Accepted({ "-p", "70000", "-r", "65535", "-b", "65536", "-n", "131075", "-G",
        "-5", "-I", "-6", "-X", "-7", "70001" });
    EXPECT_EQ(options.mediaPort, 4464);
    EXPECT_EQ(options.requestPort, 65535);
    EXPECT_EQ(options.unicastPort, 0);
    EXPECT_EQ(options.interfaces, 3);
    EXPECT_EQ(options.grossBitRate, 4'294'967'291);
    EXPECT_EQ(options.instance, -6);
    EXPECT_EQ(options.pacingBitRate, 0); // below 1 it is off
    EXPECT_EQ(options.listenPort, 4465);
    EXPECT_EQ(Accepted({ "-X", "4294967297", "1" }).pacingBitRate, 1);
}

TEST(ProxyOptionsOfACommandLine, EmptyArgumentsAreZeroAndBlanksInFrontAreTaken)
{
    const ProxyOptions options = Accepted({ "-p", "", "-r", " \t+13", "-G", "", "-q", "", "-I", "", "" });
    EXPECT_EQ(options.mediaPort, 0);
    EXPECT_EQ(options.requestPort, 13);
    EXPECT_EQ(options.grossBitRate, 0);
    EXPECT_EQ(options.ringPackets, 1U);
    EXPECT_EQ(options.instance, 0);
    EXPECT_EQ(options.listenPort, 0);
}

TEST(ProxyOptionsOfACommandLine, WhatIsNoNumberEndsTheStartButForTheRingAndTheLevel)
{
    for (const char* option : { "-1", "-b", "-G", "-n", "-p", "-r", "-I", "-X" }) {
        EXPECT_TRUE(IsRefused({ option, "12x", "5000" })) << option;
        EXPECT_TRUE(IsRefused({ option, "12 ", "5000" })) << option;
        EXPECT_TRUE(IsRefused({ option, "0x10", "5000" })) << option;
    }
    EXPECT_EQ(Accepted({ "-q", "12x", "-l", "12x", "5000" }).ringPackets, 4096U);
}

TEST(ProxyOptionsOfACommandLine, TheRingIsRoundedUpToAPowerOfTwo)
{
    struct {
        const char* text;
        uint32_t packets;
    } const cases[] = { { "1", 1 }, { "4096", 4096 }, { "4097", 8192 }, { "3", 4 }, { "0", 1 },
        { "-4096", 1 }, { "1073741825", 1U << 30 }, { "2147483647", 1U << 30 }, { "2147483648", 1 },
        { "4294967300", 4 } };
    for (const auto& c : cases)
        EXPECT_EQ(Accepted({ "-q", c.text, "5000" }).ringPackets, c.packets) << c.text;
}

TEST(ProxyOptionsOfACommandLine, HelpUnknownLettersAndMissingArgumentsStartNothing)
{
    EXPECT_TRUE(IsRefused({ "-h", "5000" }));
    EXPECT_TRUE(IsRefused({ "-y", "5000" }));
    EXPECT_TRUE(IsRefused({ "-:", "5000" }));
    EXPECT_TRUE(IsRefused({ "-u5", "5000" }));
    for (const char letter : std::string("1abGlnpqrINXZ"))
        EXPECT_TRUE(IsRefused({ "5000", std::string { '-', letter }.c_str() })) << letter;
}

TEST(ProxyOptionsOfACommandLine, OneOrTwoPositionalWordsAreNeeded)
{
    EXPECT_TRUE(IsRefused({}));
    EXPECT_TRUE(IsRefused({ "-u" }));
    EXPECT_TRUE(IsRefused({ "1", "239.1.1.1", "3" }));
    ProxyOptions options;
    EXPECT_FALSE(ReadProxyOptions({}, options));
}

TEST(ProxyOptionsOfACommandLine, OnlyAGroupOfFourFieldsIsListenedOn)
{
    struct {
        const char* text;
        const char* group;
    } const cases[] = { { "224.0.0.0", "224.0.0.0" }, { "239.255.255.255", "239.255.255.255" },
        { "240.0.0.0", "" }, { "223.255.255.255", "" }, { "10.0.0.1", "" }, { "239.1", "" }, { "group", "" },
        { "", "" }, { "0239.1.1.1", "" }, { "239.010.1.1", "239.10.1.1" }, { "0xEF.1.1.1", "" },
        { "239.1.1.1 x", "239.1.1.1" }, { "239.001.001.0001", "" } };
    for (const auto& c : cases) {
        const ProxyOptions options = Accepted({ "5000", c.text });
        EXPECT_EQ(options.group, c.group) << c.text;
        EXPECT_EQ(options.idleAddress, *c.group == '\0' ? c.text : "") << c.text;
    }
}

TEST(ProxyOptionsOfACommandLine, AnEmptyPasswordIsNoneAndTheLastOneCounts)
{
    EXPECT_TRUE(Accepted({ "-Z", "secret", "1" }).isEncrypting);
    EXPECT_FALSE(Accepted({ "-Z", "", "1" }).isEncrypting);
    EXPECT_FALSE(Accepted({ "-Z", "secret", "-Z", "", "1" }).isEncrypting);
    EXPECT_TRUE(Accepted({ "-z", "-Z", "", "1" }).isEncrypting);
}

TEST(PortsOfAProxy, ReceiversPingTheMediaPortUnlessAGroupIsServed)
{
    EXPECT_EQ(PingPort(Accepted({ "-p", "5002", "1" })), 5002);
    EXPECT_EQ(PingPort(Accepted({ "-p", "5002", "-b", "5001", "-a", "10.0.0.1", "1" })), 5002);
    EXPECT_EQ(PingPort(Accepted({ "-p", "5002", "-b", "5001", "-a", "10.0.0.1,239.1.1.1", "1" })), 5001);
    EXPECT_EQ(PingPort(Accepted({ "-p", "5002", "-a", "239.1.1.1", "1" })), 5002);
    EXPECT_EQ(OutputGroup(Accepted({ "-a", "name,239.1.1.2,239.1.1.1", "1" })), "239.1.1.2");
}

TEST(PortsOfAProxy, TheLockPortWrapsAt65536)
{
    EXPECT_EQ(LockPort(1), 32124);
    EXPECT_EQ(LockPort(0), 32123);
    EXPECT_EQ(LockPort(-1), 32122);
    EXPECT_EQ(LockPort(33413), 0);
    EXPECT_EQ(LockPort(65536 + 1), 32124);
}

} // namespace arqctl
