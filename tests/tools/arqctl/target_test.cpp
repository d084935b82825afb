#include "arqctl/proxy/target.h"

#include <gtest/gtest.h>

namespace {

TEST(ArqctlTarget, ANumberAPathAndAHostAreToldApart)
{
    arqctl::Target read;
    ASSERT_TRUE(arqctl::ParseTarget("2", read));
    EXPECT_EQ(read, (arqctl::Target { 2, "", "" }));
    EXPECT_EQ(read.ControlPath(), "/dev/arq_tx_ctrl2");
    EXPECT_EQ(read.Name(), "2");
    ASSERT_TRUE(arqctl::ParseTarget("ssh:me@edge1/3", read));
    EXPECT_EQ(read, (arqctl::Target { 3, "me@edge1", "" }));
    EXPECT_EQ(read.ControlPath(), "/dev/arq_tx_ctrl3");
    EXPECT_EQ(read.Name(), "me@edge1/3");
    ASSERT_TRUE(arqctl::ParseTarget("/tmp/ctrl", read));
    EXPECT_EQ(read, (arqctl::Target { 0, "", "/tmp/ctrl" }));
    EXPECT_EQ(read.ControlPath(), "/tmp/ctrl");
    EXPECT_FALSE(read.IsRemote());
}

TEST(ArqctlTarget, WhatIsNoTargetIsRefusedAndLeavesTheResultAlone)
{
    const arqctl::Target before { 7, "host", "" };
    for (const char* text : { "", "x", "2x", " 2", "2147483648", "/", "ssh:", "ssh:/1", "ssh:host",
             "ssh:host/", "ssh:host/x", "ssh:-oProxyCommand=x/1", "ssh:a b/1", "ssh:a\n/1", "host/1" }) {
        arqctl::Target read = before;
        EXPECT_FALSE(arqctl::ParseTarget(text, read)) << text;
        EXPECT_EQ(read, before) << text;
    }
}

} // namespace
