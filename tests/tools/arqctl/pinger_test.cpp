#include "arqctl/core/pinger.h"

#include <gtest/gtest.h>

namespace arqctl {

namespace {

// An IPv4 packet from 10.0.0.1:256 to 10.0.0.2:512 with these bytes behind the UDP header.
std::vector<uint8_t> PacketWith(const std::vector<uint8_t>& data, size_t dataBytes, size_t options = 0)
{
    std::vector<uint8_t> packet(20 + options);
    packet[0] = static_cast<uint8_t>(0x45 + options / 4);
    const std::vector<uint8_t> addresses { 10, 0, 0, 1, 10, 0, 0, 2 };
    std::copy(addresses.begin(), addresses.end(), packet.begin() + 12);
    const size_t length = 8 + dataBytes;
    const std::vector<uint8_t> udp { 1, 0, 2, 0, static_cast<uint8_t>(length >> 8),
        static_cast<uint8_t>(length), 0, 0 };
    packet.insert(packet.end(), udp.begin(), udp.end());
    packet.insert(packet.end(), data.begin(), data.end());
    return packet;
}

} // namespace

TEST(Pinger, AnyShortDatagramIsAPing)
{
    for (const size_t options : { size_t { 0 }, size_t { 40 } }) {
        const auto pinger = ReadPinger(PacketWith({}, 0, options));
        ASSERT_TRUE(pinger.has_value());
        EXPECT_EQ(pinger->from, (common::Endpoint { 0x0A000001, 256 }));
        EXPECT_EQ(pinger->to, (common::Endpoint { 0x0A000002, 512 }));
        EXPECT_FALSE(pinger->streamId.has_value());
    }
    EXPECT_TRUE(ReadPinger(PacketWith({ 1 }, 64)).has_value());
    EXPECT_FALSE(ReadPinger(PacketWith({ 1 }, 65)).has_value()); // media that came back
}

TEST(Pinger, ItsStreamIdStandsBehindTheTagOfEitherOrder)
{
    for (const std::vector<uint8_t>& data : { std::vector<uint8_t> { 0xBA, 0xBE, 0xFA, 0xCE, 0x51, 0, 0, 1 },
             std::vector<uint8_t> { 0xCE, 0xFA, 0xBE, 0xBA, 0x51, 0, 0, 1 } })
        EXPECT_EQ(ReadPinger(PacketWith(data, data.size()))->streamId, 0x01000051U);
    EXPECT_FALSE(ReadPinger(PacketWith({ 0xBA, 0xBE, 0xFA, 0xCE, 1 }, 5))->streamId.has_value());
    EXPECT_FALSE(ReadPinger(PacketWith({ 0xBA, 0xBE, 0xFA, 0xCE, 0, 0, 0, 0 }, 8))->streamId.has_value());
}

TEST(Pinger, OneThatLeavesDoesNotPing)
{
    EXPECT_FALSE(ReadPinger(PacketWith({ 0xDE, 0xAD, 0xBE, 0xEF }, 4)).has_value());
    EXPECT_FALSE(ReadPinger(PacketWith({ 0xEF, 0xBE, 0xAD, 0xDE, 1, 2, 3, 4 }, 8)).has_value());
}

TEST(Pinger, WhatIsCutOffIsNone)
{
    const std::vector<uint8_t> whole = PacketWith({}, 0);
    for (size_t size = 0; size < whole.size(); ++size)
        EXPECT_FALSE(ReadPinger(std::span(whole).first(size)).has_value()) << size;
    std::vector<uint8_t> shortHeader = whole;
    shortHeader[0] = 0x44;
    EXPECT_FALSE(ReadPinger(shortHeader).has_value());
}

TEST(Pinger, OneReceiverAtTwoPlacesIsFound)
{
    const Pinger one { .from = { 1, 9 }, .to = {}, .streamId = {} };
    Pinger other = one;
    EXPECT_TRUE(TwoOfOneReceiver({ one, other }).empty());
    other.from.port = 10;
    EXPECT_EQ(TwoOfOneReceiver({ one, other }), (std::vector<Pinger> { one, other }));
    other.streamId = 7;
    EXPECT_TRUE(TwoOfOneReceiver({ one, other }).empty());
}

} // namespace arqctl
