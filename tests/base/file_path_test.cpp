#include "base/file_path.h"

#include <string>

#include <gtest/gtest.h>

#include "support/allocation_hooks.h"

namespace {

TEST(FilePath, IsMadeAsPrintfDoes)
{
    const FilePath path("%s/dev/number%d", "/top", -3);
    EXPECT_STREQ(path.c_str(), "/top/dev/number-3");
    EXPECT_EQ(path, "/top/dev/number-3");
    EXPECT_FALSE(path == "/top/dev/number-30");
}

TEST(FilePath, WhatDoesNotFitIsCutOff)
{
    const std::string text(1000, 'x');
    EXPECT_EQ(FilePath("%s", text.c_str()), std::string(FilePath::BYTES - 1, 'x'));
}

TEST(FilePath, NeedsNoMemory)
{
    const test_support::AllocationCount allocations;
    const FilePath path("/a/path/that/is/longer/than/any/short/text%d", 1);
    EXPECT_EQ(allocations.Count(), 0U);
    EXPECT_EQ(path, "/a/path/that/is/longer/than/any/short/text1");
}

} // namespace
