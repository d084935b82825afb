#include "main/proxy_context.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

TEST(ProxyContext, StartsWithItsDefaults)
{
    const ProxyContext context;
    EXPECT_EQ(context.running, 0);
    EXPECT_EQ(context.listenPort, 0);
    EXPECT_EQ(context.destPort, 10000);
    EXPECT_EQ(context.arqRequestPort, 7020);
    EXPECT_EQ(context.unicastUdpPort, 0);
    EXPECT_EQ(context.startTime, 0);
    EXPECT_EQ(context.grossMediaBitrate, 50000000);
    EXPECT_EQ(context.udpInputMode, 0);
    EXPECT_EQ(context.multicastGroup, 0U);
    EXPECT_EQ(context.replicator, nullptr);
    EXPECT_STREQ(context.destAddress, "");
    EXPECT_EQ(context.queue, nullptr);
    EXPECT_EQ(context.instance, 1);
    EXPECT_EQ(context.instanceCopy, 0);
    EXPECT_STREQ(context.sourceAddress, "");
    EXPECT_EQ(context.inputBytes, 0U);
    EXPECT_EQ(context.startTimeUs, 0);
}

TEST(ProxyContext, StartsWithTheControlThreadsFieldsAtZero)
{
    const ProxyContext context;
    const sockaddr_un noAddress {};
    EXPECT_EQ(context.control.statusFlag, 0);
    EXPECT_EQ(context.control.statusSocket, 0);
    EXPECT_EQ(context.control.nextPollMs, 0U);
    EXPECT_EQ(std::memcmp(&context.control.statusAddress, &noAddress, sizeof(noAddress)), 0);
}

TEST(ProxyContext, StartsWithNoLibrary)
{
    const ProxyContext context;
    const EncryptionPlugin& plugin = context.plugin;
    EXPECT_EQ(plugin.library, nullptr);
    EXPECT_EQ(plugin.session, nullptr);
    EXPECT_EQ(plugin.openCallback, nullptr);
    EXPECT_EQ(plugin.dataCallback, nullptr);
    EXPECT_EQ(plugin.closeCallback, nullptr);
    EXPECT_EQ(plugin.printInfo, nullptr);
}

TEST(ProxyContext, HoldsTheLongestSourceAddress)
{
    EXPECT_GE(sizeof(ProxyContext::sourceAddress), sizeof("255.255.255.255"));
}

} // namespace
