#include "arqctl/core/command_text.h"

#include <gtest/gtest.h>

namespace {

TEST(ArqctlCommandText, APasswordIsNeverShownHoweverItIsGiven)
{
    EXPECT_EQ(arqctl::CommandText({ "/usr/bin/tx_proxy", "-Z", "key", "5000" }), "tx_proxy -Z *** 5000");
    EXPECT_EQ(arqctl::CommandText({ "tx_proxy", "-Zkey", "5000" }), "tx_proxy -Z*** 5000");
    EXPECT_EQ(arqctl::CommandText({ "tx_proxy", "-uZkey", "5000" }), "tx_proxy -uZ*** 5000");
    EXPECT_EQ(
        arqctl::CommandText({ "tx_proxy", "-Z", "one", "-Z", "two", "5000" }), "tx_proxy -Z *** -Z *** 5000");
    EXPECT_EQ(
        arqctl::CommandText({ "tx_proxy", "5000", "-Z", "key", "-?" }), "tx_proxy"); // nothing is known of it
}

TEST(ArqctlCommandText, WhatAShellWouldReadIsQuotedAndControlCharactersAreNot)
{
    EXPECT_EQ(arqctl::CommandText({ "tx_proxy", "-a", "10.0.0.1,b", "-N", "a b", "-N", "", "5000" }),
        "tx_proxy -a 10.0.0.1,b -N 'a b' -N '' 5000");
    EXPECT_EQ(arqctl::CommandText({ "tx_proxy", "-N", "\x1b[2J" }), "tx_proxy -N '?[2J'");
    EXPECT_EQ(arqctl::CommandText({}), "");
}

} // namespace
