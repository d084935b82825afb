#include "input/address.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include "support/allocation_hooks.h"
#include "support/system_hooks.h"

namespace {

using test_support::FailCalls;
using test_support::SystemCall;

// The address whose first byte on the wire is a.
in_addr_t Quad(uint8_t a, uint8_t b, uint8_t c, uint8_t d)
{
    const uint8_t bytes[4] = { a, b, c, d };
    in_addr_t address = 0;
    std::memcpy(&address, bytes, sizeof(bytes));
    return address;
}

TEST(ParseDottedQuad, TheFirstFieldIsTheFirstByteOnTheWire)
{
    EXPECT_EQ(parseDottedQuad("1.2.3.4"), Quad(1, 2, 3, 4));
    EXPECT_EQ(parseDottedQuad("255.255.255.255"), Quad(255, 255, 255, 255));
    EXPECT_EQ(parseDottedQuad("239.1.1.1"), Quad(239, 1, 1, 1));
}

TEST(ParseDottedQuad, FifteenCharactersAreTakenAndSixteenAreNot)
{
    EXPECT_EQ(parseDottedQuad("192.168.100.101"), Quad(192, 168, 100, 101));
    EXPECT_EQ(parseDottedQuad("010.010.010.010"), Quad(10, 10, 10, 10));
    EXPECT_EQ(parseDottedQuad("0010.010.010.010"), 0U);
    EXPECT_EQ(parseDottedQuad("192.168.100.1001"), 0U);
}

TEST(ParseDottedQuad, FieldsAreDecimalAndKeepTheirLowEightBits)
{
    EXPECT_EQ(parseDottedQuad("0377.1.1.0377"), Quad(377 - 256, 1, 1, 377 - 256)); // inet_aton: octal 255
    EXPECT_EQ(parseDottedQuad("0x10.1.1.0x7"), Quad(0, 1, 1, 0)); // inet_aton: hexadecimal
}

TEST(ParseDottedQuad, WhatInetAtonRejectsIsNoAddress)
{
    for (const char* text : { "", "a.b.c.d", "1.2.3.256", "1.2.3.4.5", "1..2.3", "1.2.3.4x", "host",
             "1,2,3,4", " 1.2.3.4", "-1.2.3.4", "1.2.3. 4", "1.2. 3.4" })
        EXPECT_EQ(parseDottedQuad(text), 0U) << text;
}

TEST(ParseDottedQuad, ShortFormsAreNoAddresses)
{
    for (const char* text : { "10", "10.1", "10.1.1", "167772161" }) {
        in_addr parsed {};
        ASSERT_NE(inet_aton(text, &parsed), 0) << text;
        EXPECT_EQ(parseDottedQuad(text), 0U) << text;
    }
}

// inet_aton stops at a blank; the fields are those of the whole text.
TEST(ParseDottedQuad, ABlankInsideDoesNotEndTheFields)
{
    EXPECT_EQ(parseDottedQuad("127.0.0 .1"), Quad(127, 0, 0, 1));
    EXPECT_EQ(parseDottedQuad("127.0 .0.1"), Quad(127, 0, 0, 1));
    EXPECT_EQ(parseDottedQuad("10 .20.30.40"), Quad(10, 20, 30, 40));
    EXPECT_EQ(parseDottedQuad("10\t.20.30. 40"), Quad(10, 20, 30, 40));
    EXPECT_EQ(parseDottedQuad("10 x.2y.3z.4"), Quad(10, 2, 3, 4));
    EXPECT_EQ(parseDottedQuad("1.2.300 .4"), Quad(1, 2, 300 - 256, 4));
    EXPECT_EQ(parseDottedQuad("10 ..."), Quad(10, 0, 0, 0));
}

TEST(ParseDottedQuad, WhatFollowsTheThirdDotIsTheFourthField)
{
    EXPECT_EQ(parseDottedQuad("1.2.3.4 x.y"), Quad(1, 2, 3, 4));
    EXPECT_EQ(parseDottedQuad("1.2.3.4 .5.6"), Quad(1, 2, 3, 4));
    EXPECT_EQ(parseDottedQuad("1.2.3.4 "), Quad(1, 2, 3, 4));
}

TEST(ParseDottedQuad, AShortFormWithABlankIsNoAddress)
{
    for (const char* text : { "127.0.0 1", "127.0 .1", "10 1.2.3", "10 ..", "127 " }) {
        in_addr parsed {};
        ASSERT_NE(inet_aton(text, &parsed), 0) << text;
        EXPECT_EQ(parseDottedQuad(text), 0U) << text;
    }
}

TEST(ParseDottedQuad, ABlankCountsAsACharacterOfTheFifteen)
{
    EXPECT_EQ(parseDottedQuad("192.168.10 .101"), Quad(192, 168, 10, 101));
    EXPECT_EQ(parseDottedQuad("192.168.100 .101"), 0U);
}

TEST(ParseDottedQuad, AllZeroesIsNoAddress)
{
    EXPECT_EQ(parseDottedQuad("0.0.0.0"), 0U);
}

TEST(ReadDottedQuad, TellsAllZeroesFromAnUnreadableText)
{
    in_addr_t address = 77;
    EXPECT_TRUE(ReadDottedQuad("0.0.0.0", &address));
    EXPECT_EQ(address, 0U);
    address = 77;
    EXPECT_FALSE(ReadDottedQuad("1.2.3", &address));
    EXPECT_EQ(address, 77U);
}

TEST(ResolveHost, ADottedQuadNeedsNoLookup)
{
    EXPECT_EQ(resolveHost("10.20.30.40"), Quad(10, 20, 30, 40));
}

TEST(ResolveHost, AHostNameResolvesThroughTheSystem)
{
    EXPECT_EQ(resolveHost("localhost"), Quad(127, 0, 0, 1));
}

TEST(ResolveHost, AllZeroesIsLookedUpAndStaysUnresolved)
{
    EXPECT_EQ(resolveHost("0.0.0.0"), 0U);
}

// The resolver reads numeric names by the rules of inet_aton, so it shows that it was asked.
TEST(ResolveHost, SixteenCharactersGoToTheResolver)
{
    EXPECT_EQ(resolveHost("0010.010.010.010"), Quad(8, 8, 8, 8));
}

TEST(ResolveHost, ShortFormsGoToTheResolver)
{
    EXPECT_EQ(resolveHost("127.1"), Quad(127, 0, 0, 1));
    EXPECT_EQ(resolveHost("10.1.2"), Quad(10, 1, 0, 2));
}

TEST(ResolveHost, ALookupThatNeedsMoreRoomIsTriedAgain)
{
    for (int tooSmall = 1; tooSmall <= 4; ++tooSmall) { // 1, 4, 16 and 64 KiB
        const FailCalls lookups(SystemCall::LookUpHost, ERANGE, 1, tooSmall);
        EXPECT_EQ(resolveHost("localhost"), Quad(127, 0, 0, 1)) << tooSmall;
        EXPECT_EQ(lookups.Calls(), tooSmall + 1);
    }
}

TEST(ResolveHost, ALookupThatNeedsMoreThan256KiBIsGivenUp)
{
    const FailCalls lookups(SystemCall::LookUpHost, ERANGE, 1, 100);
    EXPECT_EQ(resolveHost("localhost"), 0U);
    EXPECT_EQ(lookups.Calls(), 5);
}

TEST(ResolveHost, AnyOtherErrorEndsTheLookup)
{
    const FailCalls lookups(SystemCall::LookUpHost, EAGAIN);
    EXPECT_EQ(resolveHost("localhost"), 0U);
    EXPECT_EQ(lookups.Calls(), 1);
}

TEST(ResolveHost, WithoutMemoryForTheLookupTheNameIsUnknown)
{
    const test_support::FailNthAllocation failure(1);
    EXPECT_EQ(resolveHost("localhost"), 0U);
    EXPECT_TRUE(failure.Fired());
}

TEST(ResolveToSockaddr, FillsTheWholeAddressWithPortZero)
{
    sockaddr_in address;
    std::memset(&address, 0xEE, sizeof(address));
    EXPECT_TRUE(resolveToSockaddr("10.20.30.40", &address));
    sockaddr_in expected {};
    expected.sin_family = AF_INET;
    expected.sin_addr.s_addr = Quad(10, 20, 30, 40);
    EXPECT_EQ(std::memcmp(&address, &expected, sizeof(expected)), 0);
}

TEST(ResolveToSockaddr, IsFalseForWhatDoesNotResolve)
{
    sockaddr_in address;
    std::memset(&address, 0xEE, sizeof(address));
    EXPECT_FALSE(resolveToSockaddr("0.0.0.0", &address));
    sockaddr_in expected {};
    expected.sin_family = AF_INET;
    EXPECT_EQ(std::memcmp(&address, &expected, sizeof(expected)), 0);
}

TEST(IsMulticast, IsTrueForFirstOctets224To239)
{
    EXPECT_FALSE(IsMulticast(Quad(223, 255, 255, 255)));
    EXPECT_TRUE(IsMulticast(Quad(224, 0, 0, 0)));
    EXPECT_TRUE(IsMulticast(Quad(239, 255, 255, 255)));
    EXPECT_FALSE(IsMulticast(Quad(240, 0, 0, 0)));
    EXPECT_FALSE(IsMulticast(0));
    EXPECT_FALSE(IsMulticast(Quad(10, 0, 0, 1)));
}

} // namespace
