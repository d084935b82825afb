#include "control/paths.h"

#include <gtest/gtest.h>

namespace {

TEST(Paths, CarryTheInstanceNumber)
{
    EXPECT_EQ(ControlSocketPath(1), "/dev/arq_tx_ctrl1");
    EXPECT_EQ(StatusSocketPath(12), "/dev/arq_tx_stat12");
    EXPECT_EQ(ImpairmentTogglePath(0), "/var/run/tx_proxy0.imp");
    EXPECT_EQ(ImpairmentSettingsPath(-3), "/var/run/tx_proxy-3.imp.conf");
    EXPECT_EQ(ClearRequestPath(2147483647), "/var/run/tx_proxy2147483647.clear");
}

TEST(Paths, LieBelowTheRootThatWasSet)
{
    SetPathRoot("/tmp/elsewhere");
    EXPECT_EQ(ControlSocketPath(1), "/tmp/elsewhere/dev/arq_tx_ctrl1");
    EXPECT_EQ(StatusSocketPath(1), "/tmp/elsewhere/dev/arq_tx_stat1");
    EXPECT_EQ(ImpairmentTogglePath(1), "/tmp/elsewhere/var/run/tx_proxy1.imp");
    EXPECT_EQ(ImpairmentSettingsPath(1), "/tmp/elsewhere/var/run/tx_proxy1.imp.conf");
    EXPECT_EQ(ClearRequestPath(1), "/tmp/elsewhere/var/run/tx_proxy1.clear");
    SetPathRoot("");
    EXPECT_EQ(ControlSocketPath(1), "/dev/arq_tx_ctrl1");
    SetPathRoot("/tmp/elsewhere");
    SetPathRoot(nullptr);
    EXPECT_EQ(ControlSocketPath(1), "/dev/arq_tx_ctrl1");
}

} // namespace
