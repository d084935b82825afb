#include <gtest/gtest.h>

#include <cstdint>

#include "base/plain_word.h"

namespace {

TEST(PlainWordSigned, AddWrapsFromTheLargestToTheSmallestNumber)
{
    PlainWord<int32_t> word { INT32_MAX };
    word.Add(1);
    EXPECT_EQ(word, INT32_MIN);
    PlainWord<int64_t> wide { INT64_MAX };
    wide.Add(2);
    EXPECT_EQ(wide, INT64_MIN + 1);
}

TEST(PlainWordSigned, AddingANegativeNumberWrapsFromTheSmallestToTheLargest)
{
    PlainWord<int32_t> word { INT32_MIN };
    word.Add(-1);
    EXPECT_EQ(word, INT32_MAX);
    word.Add(-INT32_MAX);
    EXPECT_EQ(word, 0);
}

} // namespace
