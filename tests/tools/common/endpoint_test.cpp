#include "common/endpoint.h"

#include <gtest/gtest.h>
#include <string>

namespace common {
namespace {

std::string Parsed(const std::string& text)
{
    Endpoint endpoint;
    return ParseEndpoint(text, endpoint) ? EndpointText(endpoint) : "refused";
}

TEST(Endpoint, AnAddressAndAPortAreReadAndPrinted)
{
    Endpoint endpoint;
    ASSERT_TRUE(ParseEndpoint("127.0.0.2:10000", endpoint));
    EXPECT_EQ(endpoint.address, 0x7F000002U);
    EXPECT_EQ(endpoint.port, 10000);
    EXPECT_EQ(EndpointText(endpoint), "127.0.0.2:10000");
    EXPECT_EQ(Parsed("255.255.255.255:65535"), "255.255.255.255:65535");
}

TEST(Endpoint, NoAddressMeansEveryAddress)
{
    EXPECT_EQ(Parsed(":5000"), "0.0.0.0:5000");
    EXPECT_EQ(Parsed("*:5000"), "0.0.0.0:5000");
    EXPECT_EQ(Parsed("0.0.0.0:0"), "0.0.0.0:0");
}

TEST(Endpoint, WhatIsNoAddressWithAPortIsRefused)
{
    for (const char* text : { "", "127.0.0.1", "127.0.0.1:", "127.1:5", "127.0.0.256:5", "127.0.0.1:65536",
             "127.0.0.1:-1", "127.0.0.1:5x", " 127.0.0.1:5", "127.0.0.1 :5", "::1:5", "host:5" })
        EXPECT_EQ(Parsed(text), "refused") << text;
    EXPECT_EQ(Parsed(std::string("127.0.0.1\0:5", 12)), "refused");
}

TEST(Endpoint, TheSystemsRecordHoldsTheSame)
{
    const Endpoint endpoint { 0x0A000001, 7020 };
    const sockaddr_in address = ToSockaddr(endpoint);
    EXPECT_EQ(address.sin_family, AF_INET);
    EXPECT_EQ(ntohs(address.sin_port), 7020);
    EXPECT_EQ(FromSockaddr(address), endpoint);
}

TEST(Endpoint, MulticastIsTheFourthPartOfTheUpperHalf)
{
    EXPECT_FALSE((Endpoint { 0xDFFFFFFF, 1 }.IsMulticast()));
    EXPECT_TRUE((Endpoint { 0xE0000000, 1 }.IsMulticast()));
    EXPECT_TRUE((Endpoint { 0xEFFFFFFF, 1 }.IsMulticast()));
    EXPECT_FALSE((Endpoint { 0xF0000000, 1 }.IsMulticast()));
}

TEST(Endpoint, ALookUpNeedsNoNameServerForAnAddressAndSaysWhatIsWrong)
{
    Endpoint endpoint;
    std::string problem;
    EXPECT_TRUE(LookUpEndpoint("10.0.0.1:5", endpoint, problem));
    EXPECT_EQ(EndpointText(endpoint), "10.0.0.1:5");
    EXPECT_FALSE(LookUpEndpoint("10.0.0.1", endpoint, problem));
    EXPECT_EQ(problem, "'10.0.0.1' is not HOST:PORT");
}

} // namespace
} // namespace common
