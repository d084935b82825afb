#include "arq/media_header.h"

#include <gtest/gtest.h>

#include "support/test_packets.h"

using test_support::RtpPacket;
using test_support::TestPacket;

namespace {

TEST(HeaderOf, IsTheFirstTwelveBytesOfPartZero)
{
    TestPacket packet(RtpPacket(0x1234, 0xA1B2C3D4));
    EXPECT_EQ(HeaderOf(*packet.Get()).seq.Get(), 0x1234);
    EXPECT_EQ(HeaderOf(*packet.Get()).timestamp.Get(), 0xA1B2C3D4U);
    HeaderOf(*packet.Get()).payloadType.Set(0xFA);
    EXPECT_EQ(packet.Data()[1], 0xFA);
}

TEST(HeaderOf, MayStandAtAnyAddress)
{
    TestPacket packet(test_support::Concat({ { 0 }, RtpPacket(0x1234) }));
    packet->parts[0] = packet.Data() + 1;
    EXPECT_EQ(HeaderOf(*packet.Get()).seq.Get(), 0x1234);
}

} // namespace
