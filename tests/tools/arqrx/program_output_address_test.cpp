#include "arqrx/program/output_address.h"

#include <gtest/gtest.h>

namespace {

using arqrx::OutputAddress;
using arqrx::OutputKind;
using arqrx::ParseOutput;

OutputAddress Parsed(std::string_view text)
{
    OutputAddress output;
    std::string problem;
    EXPECT_TRUE(ParseOutput(text, output, problem)) << problem;
    return output;
}

std::string ProblemOf(std::string_view text)
{
    OutputAddress output;
    std::string problem;
    EXPECT_FALSE(ParseOutput(text, output, problem)) << text;
    return problem;
}

TEST(OutputAddress, DatagramsGoToAHostAndAPort)
{
    const OutputAddress udp = Parsed("udp://player.example.net:5000");
    EXPECT_EQ(udp.kind, OutputKind::Udp);
    EXPECT_EQ(udp.hostAndPort, "player.example.net:5000");
    EXPECT_EQ(udp.timeToLive, 1);
    EXPECT_EQ(Parsed("rtp://10.0.0.1:1").kind, OutputKind::Rtp);
}

TEST(OutputAddress, AGroupHasTimeToLiveInterfaceAndSource)
{
    const OutputAddress output = Parsed("udp://239.1.2.3:65535?ttl=255&interface=eth1&source=10.0.0.1:4000");
    EXPECT_EQ(output.hostAndPort, "239.1.2.3:65535");
    EXPECT_EQ(output.timeToLive, 255);
    EXPECT_EQ(output.networkInterface, "eth1");
    EXPECT_EQ(output.source, (common::Endpoint { 0x0A000001, 4000 }));
}

TEST(OutputAddress, ASourceNeedsNoPort)
{
    EXPECT_EQ(Parsed("udp://239.1.2.3:1?source=10.0.0.1").source, (common::Endpoint { 0x0A000001, 0 }));
}

TEST(OutputAddress, AFileIsAPathOrAUrl)
{
    EXPECT_EQ(Parsed("file:live.ts").path, "live.ts");
    EXPECT_EQ(Parsed("file:/var/live.ts").path, "/var/live.ts");
    EXPECT_EQ(Parsed("file:///var/live.ts").path, "/var/live.ts");
    EXPECT_EQ(Parsed("file:a?b").path, "a?b");
}

TEST(OutputAddress, ADashIsStandardOutput)
{
    EXPECT_EQ(Parsed("-").kind, OutputKind::StandardOutput);
}

TEST(OutputAddress, WhatIsWrongIsToldWithWhatIsRight)
{
    const std::string forms
        = ": an output is udp://HOST:PORT, rtp://HOST:PORT, file:PATH or - (standard output)";
    EXPECT_EQ(ProblemOf(""), "''" + forms);
    EXPECT_EQ(ProblemOf("out.ts"), "'out.ts'" + forms);
    EXPECT_EQ(ProblemOf("file:"), "'file:': write file:PATH");
    for (const std::string text :
        { "udp://", "udp://host", "udp://:5000", "udp://host:0", "udp://host:65536", "udp://host:x" })
        EXPECT_EQ(ProblemOf(text), "'" + text + "': write udp://HOST:PORT");
    EXPECT_EQ(ProblemOf("rtp://host"), "'rtp://host': write rtp://HOST:PORT");
}

TEST(OutputAddress, WrongSettingsAreToldOneByOne)
{
    const std::string begin = "udp://h:1?";
    for (const std::string value : { "ttl=0", "ttl=256", "ttl=x", "ttl=", "ttl", "ttl=0001" })
        EXPECT_EQ(ProblemOf(begin + value), "'" + begin + value + "': ttl is a number from 1 to 255");
    EXPECT_EQ(ProblemOf(begin + "source=me"),
        "'" + begin + "source=me': source is an address of this machine, or ADDRESS:PORT");
    EXPECT_EQ(ProblemOf(begin + "interface="),
        "'" + begin + "interface=': interface is a name like eth0, or the interface's address");
    EXPECT_EQ(ProblemOf(begin + "ttl=1&loss=2"),
        "'" + begin + "ttl=1&loss=2': behind '?' stand ttl=, interface= and source=, with '&' between them");
}

} // namespace
