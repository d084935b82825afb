#include "input/data_callback_region.h"

#include <gtest/gtest.h>

#include <initializer_list>

namespace {

struct Case {
    int32_t received;
    int32_t previous;
    int32_t offset;
    int32_t length;
};

void ExpectRegions(std::initializer_list<Case> cases)
{
    for (const Case& c : cases) {
        const DataRegion region = CallbackRegion(c.received, c.previous);
        EXPECT_EQ(region.offset, c.offset) << c.received << " bytes after " << c.previous;
        EXPECT_EQ(region.length, c.length) << c.received << " bytes after " << c.previous;
    }
}

TEST(DataCallbackRegion, SevenPacketsAfterSevenPacketsArePassedWhole)
{
    ExpectRegions({ { 1316, 1316, 0, 1316 } });
}

TEST(DataCallbackRegion, BehindAnRtpHeaderTheFirst188BytesAreSkipped)
{
    ExpectRegions({ { 1328, 1328, 188, 1140 }, { 1328, 1316, 188, 1128 } });
}

TEST(DataCallbackRegion, TheLengthIsThatOfThePreviousDatagram)
{
    ExpectRegions({ { 1316, 188, 0, 188 }, { 188, 1316, 0, 1316 }, { 1328, 500, 188, 312 } });
}

TEST(DataCallbackRegion, TheFirstTimeRoundTheRingNothingIsPassed)
{
    ExpectRegions({ { 1316, 0, 0, 0 } });
    EXPECT_LE(CallbackRegion(1328, 0).length, 0);
}

TEST(DataCallbackRegion, APreviousLengthOf188LeavesNothingBehindTheSkip)
{
    EXPECT_LE(CallbackRegion(1328, 187).length, 0);
    EXPECT_LE(CallbackRegion(1328, 188).length, 0);
    ExpectRegions({ { 1328, 189, 188, 1 } });
}

TEST(DataCallbackRegion, OtherSizesAreNotPassed)
{
    for (const int32_t received : { 1, 11, 13, 187, 189, 199, 201, 1315, 1317, 1327, 1329, 1536 })
        EXPECT_LE(CallbackRegion(received, 1316).length, 0) << received;
}

TEST(DataCallbackRegion, TheSmallestWholeSizesArePassed)
{
    ExpectRegions({ { 188, 188, 0, 188 }, { 200, 400, 188, 212 }, { 12, 1316, 188, 1128 } });
}

} // namespace
