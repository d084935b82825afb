#include "arqctl/core/kernel_text.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <iterator>

namespace arqctl {

namespace {

constexpr const char* UDP_TABLE
    = "   sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode ref pointer drops\n"
      " 1042: 030201EF:1388 00000000:0000 07 00000000:0000A2C0 00:00000000 00000000  1001        0 91234 2 0000000000000000 17\n"
      "  113: 00000000:7D7C 00000000:0000 07 00000000:00000000 00:00000000 00000000     0        0 91230 2 0000000000000000 0\n";

// A line of a socket whose inode is its port, with so many drops.
std::string UdpLine(uint16_t port, unsigned drops)
{
    char line[160];
    (void)snprintf(line, sizeof(line),
        "%5u: 00000000:%04X 00000000:0000 07 00000000:00000000 00:00000000 00000000     0        0 %u 2 "
        "0000000000000000 %u\n",
        unsigned { port }, unsigned { port }, unsigned { port }, drops);
    return line;
}

// More than a page, without any of the sockets from 5000 on.
std::string LongTable()
{
    std::string text;
    for (uint16_t port = 1000; text.size() <= 4096; ++port)
        text += UdpLine(port, 0);
    return text;
}

std::vector<UdpSocketFacts> From5000(const std::vector<UdpSocketFacts>& sockets)
{
    std::vector<UdpSocketFacts> wanted;
    std::copy_if(sockets.begin(), sockets.end(), std::back_inserter(wanted),
        [](const UdpSocketFacts& socket) { return socket.port >= 5000; });
    return wanted;
}

} // namespace

TEST(KernelText, ATableOfOnePageIsReadOnce)
{
    int readings = 0;
    EXPECT_EQ(ReadUdpSockets([&] { return ++readings, std::string(UDP_TABLE); }).size(), 2U);
    EXPECT_EQ(readings, 1);
}

TEST(KernelText, ASocketThatAReadingOfALongTableMissesIsFoundByTheNext)
{
    const std::string others = LongTable();
    int readings = 0;
    const auto sockets = ReadUdpSockets([&] {
        ++readings;
        return readings == 1 ? others : others + UdpLine(5000, 7);
    });
    EXPECT_EQ(readings, 3) << "the second showed a new one";
    ASSERT_EQ(From5000(sockets).size(), 1U);
    EXPECT_EQ(From5000(sockets)[0].drops, 7U);
}

TEST(KernelText, ASocketThatIsShownTwiceIsOneWithItsLastFigures)
{
    const std::string others = LongTable();
    unsigned drops = 0;
    const auto sockets = ReadUdpSockets([&] {
        drops += 2;
        return UdpLine(5000, drops - 1) + others + UdpLine(5000, drops);
    });
    ASSERT_EQ(From5000(sockets).size(), 1U);
    EXPECT_EQ(From5000(sockets)[0].drops, 4U);
}

TEST(KernelText, ATableThatNeverShowsTheSameTwiceIsReadFiveTimes)
{
    uint16_t port = 5000;
    EXPECT_EQ(From5000(ReadUdpSockets([&] { return LongTable() + UdpLine(port++, 0); })).size(), 5U);
}

TEST(KernelText, TheTableOfUdpSocketsIsRead)
{
    const std::vector<UdpSocketFacts> sockets = ReadUdpTable(UDP_TABLE);
    ASSERT_EQ(sockets.size(), 2U);
    const UdpSocketFacts input { .address = 0xEF010203,
        .port = 5000,
        .receiveQueueBytes = 41664,
        .drops = 17,
        .inode = 91234,
        .user = 1001 };
    EXPECT_EQ(sockets[0], input);
    EXPECT_EQ(sockets[1].port, 32124);
}

TEST(KernelText, HalfALineOfATableIsPassedOver)
{
    const std::string whole = UDP_TABLE;
    for (size_t length = 0; length < whole.size() - 2; ++length)
        EXPECT_LE(ReadUdpTable(whole.substr(0, length)).size(), 1U) << length;
    EXPECT_TRUE(ReadUdpTable("a b c d e f g h i j k l m n\n\n\n").empty());
}

TEST(KernelText, TheNameOfAProcessMayHoldBracketsAndBlanks)
{
    ProcessTimes times;
    ASSERT_TRUE(ReadProcessTimes(
        "7 (a) 9 (b) S 1 7 7 0 -1 4194560 90 0 0 0 150 50 0 0 20 0 6 0 8800 1000000 2048 1\n", times));
    EXPECT_EQ(times.busyTicks, 200U);
    EXPECT_EQ(times.startTicks, 8800U);
    EXPECT_EQ(times.residentPages, 2048U);
    EXPECT_FALSE(
        ReadProcessTimes("7 (a) S 1 7 7 0 -1 4194560 90 0 0 0 150 50 0 0 20 0 6 0 8800 1000000\n", times));
    EXPECT_FALSE(ReadProcessTimes("", times));
}

TEST(KernelText, TheStartOfTheMachineIsFoundAmongOtherLines)
{
    EXPECT_EQ(ReadBootTime("cpu  1 2 3\nctxt 5\nbtime 1700000000\nprocesses 9\n"), 1700000000U);
    EXPECT_EQ(ReadBootTime("cpu 1\nbtime x\n"), 0U);
}

TEST(KernelText, ArgumentsMayBeEmpty)
{
    using Words = std::vector<std::string>;
    EXPECT_EQ(ReadArguments(std::string("a\0\0-p\0", 6)), (Words { "a", "", "-p" }));
    EXPECT_EQ(ReadArguments("cut off"), (Words { "cut off" }));
    EXPECT_TRUE(ReadArguments("").empty());
}

TEST(KernelText, OnlySocketsHaveASocketsInode)
{
    EXPECT_EQ(SocketInode("socket:[91234]"), 91234U);
    for (const char* link : { "socket:[]", "socket:[12", "pipe:[12]", "/dev/null", "", "socket:[12x]" })
        EXPECT_EQ(SocketInode(link), 0U) << link;
}

TEST(KernelText, AProxyIsKnownByTheFileItRuns)
{
    for (const char* name : { "tx_proxy", "/usr/local/bin/tx_proxy", "/opt/x/tx_proxy (deleted)",
             "tx_proxy_plain", "/opt/tx_proxy-1.2.0", "tx_proxy.0" })
        EXPECT_TRUE(IsProxyName(name)) << name;
    for (const char* name : { "", "/usr/bin/bash", "tx_proxy_start", "tx_proxy.sh", "my_tx_proxy",
             "tx_proxy/other", "tx_prox", "tx_proxy-" })
        EXPECT_FALSE(IsProxyName(name)) << name;
}

} // namespace arqctl
