#include <set>

#include <gtest/gtest.h>

#include "demo/proxy.h"

TEST(ProxyFigures, AreReadFromTheAnswerToAllStats)
{
    const auto figures = demo::ParseProxyFigures(
        "RECV_PACKETS=1796\nRECV_BITRATE=3187200\nRECV_LOSS=2\n"
        "SEND_PACKETS=18446744073709\nSEND_BITRATE=-5\nCLIENTS=127.0.0.2,127.0.0.3");
    ASSERT_TRUE(figures);
    EXPECT_EQ(figures->received, 1796U);
    EXPECT_EQ(figures->receivedBits, 3187200);
    EXPECT_EQ(figures->inputLoss, 2);
    EXPECT_EQ(figures->sent, 18446744073709U);
    EXPECT_EQ(figures->sentBits, -5);
}

TEST(ProxyFigures, AnythingElseIsNone)
{
    for (const char* const reply : { "", "command not implemented", "RECV_PACKETS=1\n",
             "XRECV_PACKETS=1\nRECV_BITRATE=1\nRECV_LOSS=1\nSEND_PACKETS=1\nSEND_BITRATE=1\n",
             "RECV_PACKETS=\nRECV_BITRATE=1\nRECV_LOSS=1\nSEND_PACKETS=1\nSEND_BITRATE=1\n" })
        EXPECT_FALSE(demo::ParseProxyFigures(reply)) << reply;
}

TEST(ProxyPorts, ThoseOfAllInstancesLieBelowTheEphemeralOnesAndApart)
{
    std::set<uint16_t> ports;
    for (int instance = 600; instance < 640; ++instance)
        for (const uint16_t port : demo::ProxyPorts(instance).All()) {
            EXPECT_TRUE(ports.insert(port).second) << port;
            EXPECT_TRUE(port >= 1024 && port < 32768 ? true : port == 32123 + instance) << port;
        }
}
