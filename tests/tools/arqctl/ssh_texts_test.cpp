#include "arqctl/core/ssh_texts.h"

#include <gtest/gtest.h>

namespace {

using Words = std::vector<std::string>;

TEST(ArqctlSshTexts, AHostIsAWordThatSshCannotTakeForAnOption)
{
    for (const char* host : { "edge1", "me@edge1.example.net", "10.0.0.1", "[::1]" })
        EXPECT_TRUE(arqctl::IsSshHost(host)) << host;
    for (const char* host : { "", "-oProxyCommand=x", "a b", "a/b", "a\tb", "a\x7f", "\xc3\xa4" })
        EXPECT_FALSE(arqctl::IsSshHost(host)) << host;
    EXPECT_TRUE(arqctl::IsSshHost(std::string(255, 'a')));
    EXPECT_FALSE(arqctl::IsSshHost(std::string(256, 'a')));
}

TEST(ArqctlSshTexts, TheCommandIsCutAtBlanksAndIsSshWithoutOne)
{
    EXPECT_EQ(arqctl::SshCommand(""), Words { "ssh" });
    EXPECT_EQ(arqctl::SshCommand("  "), Words { "ssh" });
    EXPECT_EQ(arqctl::SshCommand(" ssh  -p 2222 "), (Words { "ssh", "-p", "2222" }));
}

TEST(ArqctlSshTexts, AQuotedWordHasNothingThatAShellWouldRead)
{
    EXPECT_EQ(arqctl::ShellQuoted(""), "''");
    EXPECT_EQ(arqctl::ShellQuoted("a b;$(x)"), "'a b;$(x)'");
    EXPECT_EQ(arqctl::ShellQuoted("it's"), "'it'\\''s'");
}

TEST(ArqctlSshTexts, ATextFromElsewhereCannotCommandATerminal)
{
    EXPECT_EQ(arqctl::Printable("\x1b[2J\n\x7f ok"), "?[2J?? ok");
    EXPECT_EQ(arqctl::Printable(std::string(1000, 'x')).size(), 200U);
}

TEST(ArqctlSshTexts, AChangedHostKeyIsToldThoughAnUnknownOneIsNamedToo)
{
    const auto trouble = arqctl::SshTrouble(
        "edge1", "@ WARNING: REMOTE HOST IDENTIFICATION HAS CHANGED! @\nHost key verification failed.\n");
    EXPECT_EQ(trouble.problem, "the host key of edge1 has changed: it may be another machine");
    EXPECT_NE(trouble.advice.find("'ssh-keygen -R edge1'"), std::string::npos);
}

TEST(ArqctlSshTexts, WhatIsNotKnownIsGivenByItsLastLine)
{
    EXPECT_EQ(arqctl::SshTrouble("h", "first\nmiddle\nlast \x1b\r\n\n").problem, "ssh to h ended: last ?");
    EXPECT_EQ(arqctl::SshTrouble("h", "one").problem, "ssh to h ended: one");
    EXPECT_EQ(arqctl::SshTrouble("h", "\n").problem, "ssh to h ended without a word");
}

TEST(ArqctlSshTexts, EveryRefusedChannelIsCounted)
{
    const std::string line = "channel 2: open failed: connect failed: open failed\r\n";
    EXPECT_EQ(arqctl::RefusedChannels(""), 0);
    EXPECT_EQ(arqctl::RefusedChannels(line), 1);
    EXPECT_EQ(arqctl::RefusedChannels(line + line), 2);
}

} // namespace
