#include "arqctl/core/reply.h"

#include <gtest/gtest.h>

#include <string>

namespace {

constexpr auto WHOLE_REPLY = "RECV_PACKETS=18446744073709551615\nRECV_BITRATE=-1\nRECV_LOSS=-2\n"
                             "SEND_PACKETS=7\nSEND_BITRATE=8\nCLIENTS=10.0.0.1,10.0.0.2,10.0.0.1";

TEST(ArqctlReply, StatisticsAreReadWithWordsThatArePrintedWithASign)
{
    arqctl::Statistics read;
    ASSERT_TRUE(arqctl::ParseStatistics(WHOLE_REPLY, read));
    const arqctl::Statistics wanted { 18446744073709551615U, 4294967295U, 4294967294U, 7, 8,
        { "10.0.0.1", "10.0.0.2", "10.0.0.1" } };
    EXPECT_EQ(read, wanted);
}

TEST(ArqctlReply, EveryPieceOfStatisticsThatIsCutOffIsRefusedAndLeavesTheResultAlone)
{
    const std::string whole = WHOLE_REPLY;
    const size_t listBegin = whole.find("CLIENTS=") + 8;
    const arqctl::Statistics before { 1, 2, 3, 4, 5, { "1.2.3.4" } };
    for (size_t length = 0; length < listBegin; ++length) {
        arqctl::Statistics read = before;
        EXPECT_FALSE(arqctl::ParseStatistics(whole.substr(0, length), read)) << length;
        EXPECT_EQ(read, before);
    }
}

TEST(ArqctlReply, WhatIsNotTheProxysIsRefused)
{
    arqctl::Statistics read;
    const std::string whole = WHOLE_REPLY;
    for (const std::string& text :
        { std::string("220 mail ready\r\n"), "x" + whole, whole + "\n", whole + ",", whole + ",10.0.0",
            whole + ",10.0.0.256", whole.substr(0, whole.find("10.")) + "," })
        EXPECT_FALSE(arqctl::ParseStatistics(text, read)) << text;
    EXPECT_EQ(read, arqctl::Statistics());
}

TEST(ArqctlReply, NumbersBeyondTheirWordsAreRefused)
{
    arqctl::Statistics read;
    std::string text = WHOLE_REPLY;
    EXPECT_FALSE(arqctl::ParseStatistics(text.replace(13, 20, "18446744073709551616"), read));
    text = WHOLE_REPLY;
    EXPECT_FALSE(arqctl::ParseStatistics(text.replace(text.find("=-1") + 1, 2, "2147483648"), read));
}

TEST(ArqctlReply, NoReceiversAreAnEmptyList)
{
    std::vector<std::string> receivers { "before" };
    EXPECT_TRUE(arqctl::ParseReceivers("", receivers));
    EXPECT_TRUE(receivers.empty());
}

} // namespace
