#include "arqlink/core/sequence_drops.h"

#include "line_fixture.h"

#include <gtest/gtest.h>
#include <initializer_list>
#include <string>

namespace arqlink {
namespace {

SequenceDrops Drops(const char* list)
{
    SequenceDrops drops;
    drops.Configure(Written({ { "drop-seq", list } }).dropped);
    return drops;
}

// What becomes of RTP packets with these numbers, one after another: "x" is lost, "." is not.
std::string Fates(SequenceDrops& drops, std::initializer_list<uint16_t> numbers)
{
    std::string fates;
    for (const uint16_t number : numbers)
        fates += drops.Drop(Rtp(number)) ? 'x' : '.';
    return fates;
}

TEST(SequenceDrops, ANumberIsLostOnce)
{
    SequenceDrops drops = Drops("7");
    EXPECT_EQ(Fates(drops, { 6, 7, 7, 8 }), ".x..");
}

TEST(SequenceDrops, ANumberSentAgainCountsWhateverItsPayloadType)
{
    SequenceDrops drops = Drops("7x3");
    std::vector<uint8_t> again = Rtp(7);
    again[1] = 0x80 | 122;
    EXPECT_TRUE(drops.Drop(Rtp(7)));
    EXPECT_TRUE(drops.Drop(again));
    EXPECT_TRUE(drops.Drop(again));
    EXPECT_FALSE(drops.Drop(again));
}

TEST(SequenceDrops, ARangeCountsEachNumberByItselfAndGoesOverTheWrap)
{
    SequenceDrops drops = Drops("65534-1x2");
    EXPECT_EQ(Fates(drops, { 65533 }), ".");
    EXPECT_EQ(Fates(drops, { 65534, 65535, 0, 1, 65534, 65535, 0, 1 }), "xxxxxxxx");
    EXPECT_EQ(Fates(drops, { 65534, 65535, 0, 1, 2 }), ".....");
}

TEST(SequenceDrops, TheFirstRangeThatHoldsANumberDecides)
{
    SequenceDrops drops = Drops("5x1,0-9x2");
    EXPECT_EQ(Fates(drops, { 5, 5, 4, 4 }), "x.xx");
}

TEST(SequenceDrops, WhatIsNoRtpPasses)
{
    SequenceDrops drops = Drops("0-65535x9");
    std::vector<uint8_t> packet = Rtp(7);
    packet.resize(11);
    EXPECT_FALSE(drops.Drop(packet));
    packet = Rtp(7);
    for (const int flags : { 0x00, 0x40, 0xC0 }) {
        packet[0] = static_cast<uint8_t>(flags);
        EXPECT_FALSE(drops.Drop(packet)) << flags;
    }
    EXPECT_FALSE(drops.Drop({}));
    EXPECT_TRUE(drops.Drop(Rtp(7, 12)));
}

TEST(SequenceDrops, OnlyAnotherListStartsTheCountsAnew)
{
    SequenceDrops drops = Drops("7");
    EXPECT_EQ(Fates(drops, { 7 }), "x");
    drops.Configure(Written({ { "drop-seq", "7" } }).dropped);
    EXPECT_EQ(Fates(drops, { 7 }), ".");
    drops.Configure(Written({ { "drop-seq", "7x1,8" } }).dropped);
    EXPECT_EQ(Fates(drops, { 7 }), "x");
}

} // namespace
} // namespace arqlink
