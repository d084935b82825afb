#include <gtest/gtest.h>

#include <vector>

#include "arqrx/core/ts_continuity.h"

namespace arqrx {
namespace {

using Bytes = std::vector<uint8_t>;
constexpr uint8_t PAYLOAD = 0x10;
constexpr uint8_t ADAPTATION = 0x20;

// A transport packet with an adaptation field of `flags` and nothing else, if it has one.
Bytes TsPacket(uint16_t pid, int counter, uint8_t parts = PAYLOAD, uint8_t flags = 0, uint8_t content = 0)
{
    Bytes packet(188, content);
    packet[0] = 0x47;
    packet[1] = static_cast<uint8_t>(pid >> 8);
    packet[2] = static_cast<uint8_t>(pid);
    packet[3] = static_cast<uint8_t>(parts | (counter & 15));
    if ((parts & ADAPTATION) != 0) {
        packet[4] = (parts & PAYLOAD) != 0 ? 7 : 183;
        packet[5] = flags;
    }
    return packet;
}

uint64_t ErrorsOf(const std::vector<Bytes>& packets)
{
    TsContinuity continuity;
    for (const Bytes& packet : packets)
        continuity.Add(packet);
    return continuity.Errors();
}

TEST(ArqrxTsContinuity, CountersThatGoOnAndWrapAreNoErrors)
{
    std::vector<Bytes> packets;
    for (int counter = 5; counter < 40; ++counter)
        packets.push_back(TsPacket(256, counter));
    EXPECT_EQ(ErrorsOf(packets), 0U);
}

TEST(ArqrxTsContinuity, AHoleIsOneErrorHoweverWideItIs)
{
    EXPECT_EQ(ErrorsOf({ TsPacket(256, 1), TsPacket(256, 3), TsPacket(256, 4) }), 1U);
    EXPECT_EQ(ErrorsOf({ TsPacket(256, 1), TsPacket(256, 12), TsPacket(256, 13) }), 1U);
    EXPECT_EQ(ErrorsOf({ TsPacket(256, 3), TsPacket(256, 2), TsPacket(256, 3) }), 1U);
}

TEST(ArqrxTsContinuity, EachPidCountsForItself)
{
    EXPECT_EQ(ErrorsOf({ TsPacket(256, 1), TsPacket(257, 9), TsPacket(256, 2), TsPacket(257, 10) }), 0U);
    EXPECT_EQ(ErrorsOf({ TsPacket(0x100, 1), TsPacket(0x1100, 9), TsPacket(0x100, 2) }), 0U)
        << "a PID has 13 bits";
}

TEST(ArqrxTsContinuity, APacketMayComeTwiceButNotThreeTimes)
{
    EXPECT_EQ(ErrorsOf({ TsPacket(256, 1), TsPacket(256, 1), TsPacket(256, 2) }), 0U);
    EXPECT_EQ(ErrorsOf({ TsPacket(256, 1), TsPacket(256, 1), TsPacket(256, 1), TsPacket(256, 2) }), 1U);
}

TEST(ArqrxTsContinuity, TheSameCounterWithAnotherPayloadIsAHoleOfFifteen)
{
    EXPECT_EQ(ErrorsOf({ TsPacket(256, 1, PAYLOAD, 0, 7), TsPacket(256, 1, PAYLOAD, 0, 8) }), 1U);
}

TEST(ArqrxTsContinuity, ADoubleMayHaveAnotherClockReference)
{
    Bytes second = TsPacket(256, 1, PAYLOAD | ADAPTATION);
    second[6] = 99;
    EXPECT_EQ(ErrorsOf({ TsPacket(256, 1, PAYLOAD | ADAPTATION), second, TsPacket(256, 2) }), 0U);
}

TEST(ArqrxTsContinuity, APacketWithoutPayloadHasTheCounterOfTheOneBefore)
{
    EXPECT_EQ(ErrorsOf({ TsPacket(256, 1), TsPacket(256, 1, ADAPTATION), TsPacket(256, 1, ADAPTATION),
                  TsPacket(256, 2) }),
        0U);
    EXPECT_EQ(ErrorsOf({ TsPacket(256, 1), TsPacket(256, 2, ADAPTATION), TsPacket(256, 3) }), 1U);
}

TEST(ArqrxTsContinuity, AnAnnouncedDiscontinuityIsNoError)
{
    constexpr uint8_t DISCONTINUITY = 0x80;
    EXPECT_EQ(ErrorsOf({ TsPacket(256, 1), TsPacket(256, 9, PAYLOAD | ADAPTATION, DISCONTINUITY),
                  TsPacket(256, 10) }),
        0U);
    EXPECT_EQ(
        ErrorsOf({ TsPacket(256, 1), TsPacket(256, 9, PAYLOAD | ADAPTATION, 0x7F), TsPacket(256, 10) }), 1U);
}

TEST(ArqrxTsContinuity, AnEmptyAdaptationFieldHasNoFlags)
{
    Bytes stuffed = TsPacket(256, 9, PAYLOAD | ADAPTATION, 0x80);
    stuffed[4] = 0;
    EXPECT_EQ(ErrorsOf({ TsPacket(256, 1), stuffed }), 1U);
}

TEST(ArqrxTsContinuity, NullPacketsAndDamagedOnesDoNotCount)
{
    EXPECT_EQ(ErrorsOf({ TsPacket(0x1FFF, 1), TsPacket(0x1FFF, 7), TsPacket(0x1FFF, 2) }), 0U);
    EXPECT_EQ(ErrorsOf({ TsPacket(256, 1), TsPacket(0x8000 | 256, 9), TsPacket(256, 2) }), 0U);
}

TEST(ArqrxTsContinuity, WhatIsNoTransportStreamIsCountedAndNotLookedInto)
{
    TsContinuity continuity;
    continuity.Add({});
    continuity.Add(Bytes(187, 0x47));
    continuity.Add(Bytes(189, 0x47));
    Bytes second = TsPacket(256, 1);
    const Bytes noSync(188, 0x46);
    second.insert(second.end(), noSync.begin(), noSync.end());
    continuity.Add(second);
    EXPECT_EQ(continuity.Foreign(), 4U);
    EXPECT_EQ(continuity.Packets(), 0U);
    EXPECT_EQ(continuity.Errors(), 0U);
}

TEST(ArqrxTsContinuity, SevenPacketsOfAPayloadAreAllLookedAt)
{
    Bytes payload;
    for (const int counter : { 0, 1, 2, 3, 4, 5, 7 }) {
        const Bytes packet = TsPacket(256, counter);
        payload.insert(payload.end(), packet.begin(), packet.end());
    }
    TsContinuity continuity;
    continuity.Add(payload);
    EXPECT_EQ(continuity.Packets(), 7U);
    EXPECT_EQ(continuity.Errors(), 1U);
    continuity.Forget();
    continuity.Add(payload);
    EXPECT_EQ(continuity.Errors(), 2U) << "only the one inside: before it is forgotten";
}

TEST(ArqrxTsContinuity, AnAdaptationFieldLongerThanThePacketIsNotRead)
{
    Bytes packet = TsPacket(256, 1, PAYLOAD | ADAPTATION);
    packet[4] = 255;
    EXPECT_EQ(ErrorsOf({ packet, packet, TsPacket(256, 2) }), 0U);
}

} // namespace
} // namespace arqrx
