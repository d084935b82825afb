#include "arqctl/core/network_text.h"

#include <gtest/gtest.h>

namespace arqctl {

TEST(NetworkText, GroupsBelongToTheInterfaceAboveThem)
{
    const auto memberships
        = ReadMemberships("Idx\tDevice    : Count Querier\tGroup    Users Timer\tReporter\n"
                          "1\tlo        :     1      V3\n"
                          "\t\t\t\t010000E0     1 0:00000000\t\t0\n"
                          "4\teth0.7   :     2      V3\n"
                          "\t\t\t\t010101EF     1 0:00000000\t\t0\n"
                          "\t\t\t\txyz\n");
    ASSERT_EQ(memberships.size(), 2U);
    EXPECT_EQ(memberships[0].interface, "lo");
    EXPECT_EQ(memberships[0].group, 0xE0000001U);
    EXPECT_EQ(memberships[1].interface, "eth0.7");
    EXPECT_EQ(memberships[1].group, 0xEF010101U);
    EXPECT_TRUE(ReadMemberships("").empty());
}

TEST(NetworkText, TheDefaultRouteOfTheLowestMetricCounts)
{
    const std::string heads
        = "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n";
    const std::string net = "eth2\t000200C0\t00000000\t0001\t0\t0\t0\t00FFFFFF\t0\t0\t0\n";
    const std::string slow = "wlan0\t00000000\t010200C0\t0003\t0\t0\t600\t00000000\t0\t0\t0\n";
    const std::string fast = "eth0\t00000000\t010200C0\t0003\t0\t0\t100\t00000000\t0\t0\t0\n";
    EXPECT_EQ(ReadDefaultInterface(heads + net + slow + fast), "eth0");
    EXPECT_EQ(ReadDefaultInterface(heads + net), "");
    EXPECT_EQ(ReadDefaultInterface(""), "");
}

TEST(NetworkText, ACounterStandsBelowItsName)
{
    const char* text
        = "TcpExt: A IPReversePathFilter B\nTcpExt: 1 42 3\nIpExt: IPReversePathFilter\nIpExt: 7\n";
    EXPECT_EQ(ReadCounter(text, "TcpExt", "IPReversePathFilter"), 42U);
    EXPECT_EQ(ReadCounter(text, "IpExt", "IPReversePathFilter"), 7U);
    EXPECT_EQ(ReadCounter(text, "TcpExt", "C"), std::nullopt);
    EXPECT_EQ(ReadCounter("TcpExt: A B\nTcpExt: 1\n", "TcpExt", "B"), std::nullopt);
}

TEST(NetworkText, PortsAreRangesOrSingleOnes)
{
    EXPECT_EQ(ReadPortRange("32768\t60999\n")->last, 60999);
    EXPECT_FALSE(ReadPortRange("32768\n").has_value());
    const auto reserved = ReadReservedPorts("100,200-210,x,65536\n");
    ASSERT_EQ(reserved.size(), 2U);
    EXPECT_EQ(reserved[0].last, 100);
    EXPECT_EQ(reserved[1].first, 200);
    EXPECT_EQ(reserved[1].last, 210);
    EXPECT_TRUE(ReadReservedPorts("\n").empty());
}

TEST(NetworkText, AUserIsWhoActsOnFiles)
{
    const auto user = ReadUser(
        "Name:\tx\nUid:\t1\t2\t3\t4\nGid:\t5\t6\t7\t8\nGroups:\t9 10 \nCapEff:\t0000000000000402\n");
    ASSERT_TRUE(user.has_value());
    EXPECT_EQ(user->user, 4U);
    EXPECT_EQ(user->groups, (std::vector<uint32_t> { 8, 9, 10 }));
    EXPECT_TRUE(user->mayWriteAnywhere);
    EXPECT_TRUE(user->mayBindLowPorts);
    EXPECT_FALSE(ReadUser("Uid:\t0\t0\t0\t0\nCapEff:\t0000000000000001\n")->mayWriteAnywhere);
    EXPECT_FALSE(ReadUser("Name:\tx\n").has_value());
}

TEST(NetworkText, LimitsAndStatesAreFound)
{
    EXPECT_EQ(ReadFileLimit(
                  "Limit  Soft\nMax open files            1024                 4096                 files\n"),
        1024U);
    EXPECT_EQ(ReadFileLimit("Max open files            unlimited            unlimited            files"),
        UINT64_MAX);
    EXPECT_EQ(ReadFileLimit("Max processes 5 5\n"), std::nullopt);
    EXPECT_EQ(ReadState("7 (a) b) T 1"), 'T');
    EXPECT_EQ(ReadState("7"), '\0');
    EXPECT_EQ(ReadCount("17\n"), 17U);
    EXPECT_EQ(ReadCount("17 18\n"), std::nullopt);
}

TEST(NetworkText, Ipv6SocketsCountWhereTheyMayTakeIpv4)
{
    const auto line = [](const std::string& address) {
        return " 1: " + address
            + ":1388 00000000000000000000000000000000:0000 07 00000000:00000000 00:00000000 00000000 "
              " 0 0 5 2 0000000000000000 0\n";
    };
    const auto sockets
        = ReadUdpTable(line("00000000000000000000000000000000") + line("0000000000000000FFFF00000100007F")
            + line("00000000000000000000000001000000") + line("000080FE000000000000000001000000"));
    ASSERT_EQ(sockets.size(), 2U);
    EXPECT_EQ(sockets[0].address, 0U);
    EXPECT_EQ(sockets[1].address, 0x7F000001U);
}

} // namespace arqctl
