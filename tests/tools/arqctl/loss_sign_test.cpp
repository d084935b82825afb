#include <gtest/gtest.h>

#include "arqctl/core/loss_sign.h"

namespace arqctl::loss_sign_test {

constexpr int64_t SECOND_US = 1'000'000;

Totals Withheld(uint64_t packets, uint64_t restarts = 0)
{
    Totals totals;
    totals.withheld = packets;
    totals.restarts = restarts;
    return totals;
}

TEST(LossSign, AWithheldPacketIsASignForAMinute)
{
    LossSign sign;
    sign.Take(Withheld(7), 0); // from before this program watched
    EXPECT_FALSE(sign.IsOn());
    sign.Take(Withheld(8), SECOND_US);
    EXPECT_EQ(sign.IsOn(), true);
    sign.Take(Withheld(8), LossSign::SEEN_US + SECOND_US - 1);
    EXPECT_EQ(sign.IsOn(), true);
    sign.Take(Withheld(8), LossSign::SEEN_US + SECOND_US);
    EXPECT_FALSE(sign.IsOn());
}

TEST(LossSign, WhatWasSwitchedFromHereStaysKnownUntilTheProxyStartsAgain)
{
    LossSign sign;
    sign.Take(Withheld(0), 0);
    sign.Set(true, 0);
    sign.Take(Withheld(0), 10 * LossSign::SEEN_US);
    EXPECT_EQ(sign.IsOn(), true);
    sign.Set(false, 10 * LossSign::SEEN_US);
    sign.Take(Withheld(0), 20 * LossSign::SEEN_US);
    EXPECT_EQ(sign.IsOn(), false);
    sign.Take(Withheld(0, 1), 20 * LossSign::SEEN_US + 1);
    EXPECT_FALSE(sign.IsOn());
}

TEST(LossSign, WhatIsCountedLateAfterSwitchingOffIsNoSignAndWhatComesLaterIs)
{
    LossSign sign;
    sign.Take(Withheld(0), 0);
    sign.Set(false, 0);
    sign.Take(Withheld(3), LossSign::SETTLING_US - 1);
    EXPECT_EQ(sign.IsOn(), false);
    sign.Take(Withheld(4), LossSign::SETTLING_US); // somebody else has switched it on
    EXPECT_EQ(sign.IsOn(), true);
    sign.Take(Withheld(4), LossSign::SETTLING_US + LossSign::SEEN_US);
    EXPECT_FALSE(sign.IsOn());
}

} // namespace arqctl::loss_sign_test
