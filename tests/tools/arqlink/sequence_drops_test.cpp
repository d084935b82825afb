#include "arqlink/core/sequence_drops.h"

#include "line_fixture.h"

#include <gtest/gtest.h>

namespace arqlink {
namespace {

SequenceDrops Drops(const char* list)
{
    SequenceDrops drops;
    drops.Configure(Written({ { "drop-seq", list } }).dropped);
    return drops;
}

TEST(SequenceDrops, ANumberIsLostOnce)
{
    SequenceDrops drops = Drops("7");
    EXPECT_FALSE(drops.Drop(Rtp(6)));
    EXPECT_TRUE(drops.Drop(Rtp(7)));
    EXPECT_FALSE(drops.Drop(Rtp(7)));
    EXPECT_FALSE(drops.Drop(Rtp(8)));
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
    EXPECT_FALSE(drops.Drop(Rtp(65533)));
    for (const int number : { 65534, 65535, 0, 1, 65534, 65535, 0, 1 })
        EXPECT_TRUE(drops.Drop(Rtp(static_cast<uint16_t>(number)))) << number;
    for (const int number : { 65534, 65535, 0, 1, 2 })
        EXPECT_FALSE(drops.Drop(Rtp(static_cast<uint16_t>(number)))) << number;
}

TEST(SequenceDrops, TheFirstRangeThatHoldsANumberDecides)
{
    SequenceDrops drops = Drops("5x1,0-9x2");
    EXPECT_TRUE(drops.Drop(Rtp(5)));
    EXPECT_FALSE(drops.Drop(Rtp(5)));
    EXPECT_TRUE(drops.Drop(Rtp(4)));
    EXPECT_TRUE(drops.Drop(Rtp(4)));
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
    EXPECT_TRUE(drops.Drop(Rtp(7)));
    drops.Configure(Written({ { "drop-seq", "7" } }).dropped);
    EXPECT_FALSE(drops.Drop(Rtp(7)));
    drops.Configure(Written({ { "drop-seq", "7x1,8" } }).dropped);
    EXPECT_TRUE(drops.Drop(Rtp(7)));
}

} // namespace
} // namespace arqlink
