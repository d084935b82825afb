#include "replicator/train_rule.h"

#include <cstddef>
#include <initializer_list>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Sizes = std::vector<size_t>;

int32_t LengthOf(const Sizes& sizes)
{
    return TrainLength(sizes.data(), static_cast<int32_t>(sizes.size()));
}

TEST(TrainRule, EqualSizesGoTogetherAndOneShorterOneMayEndTheTrain)
{
    struct Case {
        Sizes sizes;
        int32_t length;
    };
    const Case cases[] = {
        { { 100 }, 1 },
        { { 100, 100 }, 2 },
        { { 100, 100, 100 }, 3 },
        { { 100, 99 }, 2 },
        { { 100, 100, 1 }, 3 },
        { { 100, 99, 99 }, 2 },
        { { 100, 99, 100 }, 2 },
        { { 100, 101 }, 1 },
        { { 100, 100, 101 }, 2 },
        { { 1, 1, 1 }, 3 },
    };
    for (const Case& one : cases)
        EXPECT_EQ(LengthOf(one.sizes), one.length) << testing::PrintToString(one.sizes);
}

// A piece without bytes would be no piece.
TEST(TrainRule, AnEmptyDatagramGoesAlone)
{
    EXPECT_EQ(LengthOf({ 0 }), 1);
    EXPECT_EQ(LengthOf({ 0, 0 }), 1);
    EXPECT_EQ(LengthOf({ 0, 5 }), 1);
    EXPECT_EQ(LengthOf({ 5, 5, 0 }), 2);
    EXPECT_EQ(LengthOf({ 5, 0, 5 }), 1);
}

TEST(TrainRule, ATrainHas32Datagrams)
{
    EXPECT_EQ(LengthOf(Sizes(31, 1328)), 31);
    EXPECT_EQ(LengthOf(Sizes(32, 1328)), 32);
    EXPECT_EQ(LengthOf(Sizes(33, 1328)), 32);
    EXPECT_EQ(LengthOf(Sizes(64, 1)), 32);
}

TEST(TrainRule, ItsBytesFitOneIpv4Packet)
{
    EXPECT_EQ(LengthOf({ 65507 }), 1);
    EXPECT_EQ(LengthOf({ 65508 }), 1); // which goes alone, and fails alone
    EXPECT_EQ(LengthOf({ 65506, 1 }), 2);
    EXPECT_EQ(LengthOf({ 65506, 2 }), 1);
    EXPECT_EQ(LengthOf({ 32753, 32753, 1 }), 3);
    EXPECT_EQ(LengthOf({ 32753, 32753, 2 }), 2);
    EXPECT_EQ(LengthOf({ 32754, 32754 }), 1);
    EXPECT_EQ(LengthOf(Sizes(32, 2048)), 31); // 32 of them are 65536 bytes
}

TEST(TrainRule, WhatIsNotThereIsNotLookedAt)
{
    const Sizes sizes(8, 100);
    EXPECT_EQ(TrainLength(sizes.data(), 3), 3);
    EXPECT_EQ(TrainLength(sizes.data() + 7, 1), 1);
}

} // namespace
