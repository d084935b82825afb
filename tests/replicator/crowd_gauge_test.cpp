#include "replicator/crowd_gauge.h"

#include <gtest/gtest.h>

namespace {

constexpr uint32_t FIRST_LOOK_MS = 5000;

TEST(CrowdGauge, ALookIsDueAtEach16thDatagramWithoutABreak)
{
    CrowdGauge gauge;
    for (int look = 0; look < 3; ++look) {
        for (int i = 1; i < 16; ++i)
            EXPECT_FALSE(gauge.OnArrivals(1)) << i;
        EXPECT_TRUE(gauge.OnArrivals(1));
    }
}

TEST(CrowdGauge, ALookIsDueWheneverAReadingHasBrought16)
{
    CrowdGauge gauge;
    for (int look = 0; look < 3; ++look)
        EXPECT_TRUE(gauge.OnArrivals(16));
    EXPECT_FALSE(gauge.OnArrivals(15));
    EXPECT_TRUE(gauge.OnArrivals(15));
}

TEST(CrowdGauge, NoLookIsDueWhereTheSocketIsFoundEmptyBetween)
{
    CrowdGauge gauge;
    for (int i = 0; i < 100; ++i) {
        EXPECT_FALSE(gauge.OnArrivals(1));
        if (i % 15 == 14)
            gauge.OnEmpty();
    }
}

TEST(CrowdGauge, ItIsCrowdedFromAFullLookOnAndASecondLonger)
{
    CrowdGauge gauge;
    EXPECT_FALSE(gauge.IsCrowded(FIRST_LOOK_MS));
    gauge.OnLook(CrowdGauge::CROWDED_BYTES - 1, FIRST_LOOK_MS);
    EXPECT_FALSE(gauge.IsCrowded(FIRST_LOOK_MS));
    gauge.OnLook(CrowdGauge::CROWDED_BYTES, FIRST_LOOK_MS);
    EXPECT_TRUE(gauge.IsCrowded(FIRST_LOOK_MS));
    gauge.OnEmpty();
    gauge.OnLook(0, FIRST_LOOK_MS + 1);
    EXPECT_TRUE(gauge.IsCrowded(FIRST_LOOK_MS + 999));
    EXPECT_FALSE(gauge.IsCrowded(FIRST_LOOK_MS + 1000));
}

TEST(CrowdGauge, EachFullLookBeginsTheSecondAnew)
{
    CrowdGauge gauge;
    gauge.OnLook(CrowdGauge::CROWDED_BYTES, FIRST_LOOK_MS);
    gauge.OnLook(CrowdGauge::CROWDED_BYTES, FIRST_LOOK_MS + 600);
    EXPECT_TRUE(gauge.IsCrowded(FIRST_LOOK_MS + 1599));
    EXPECT_FALSE(gauge.IsCrowded(FIRST_LOOK_MS + 1600));
}

TEST(CrowdGauge, WhatIsOverDoesNotComeBackWhenTheClockHasWrapped)
{
    CrowdGauge gauge;
    gauge.OnLook(CrowdGauge::CROWDED_BYTES, FIRST_LOOK_MS);
    EXPECT_FALSE(gauge.IsCrowded(FIRST_LOOK_MS + 1000));
    EXPECT_FALSE(gauge.IsCrowded(FIRST_LOOK_MS));
}

} // namespace
