#include "demo/options.h"

#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

std::variant<demo::Options, demo::Ending> Parse(std::vector<const char*> words)
{
    words.insert(words.begin(), "./demo");
    return demo::ParseOptions(static_cast<int>(words.size()), words.data());
}

std::string Problem(std::vector<const char*> words)
{
    const auto parsed = Parse(std::move(words));
    const auto* const ending = std::get_if<demo::Ending>(&parsed);
    if (ending == nullptr)
        return "none";
    EXPECT_EQ(ending->status, 2);
    EXPECT_THAT(ending->text, testing::StartsWith("usage: ./demo "));
    EXPECT_THAT(ending->text, testing::EndsWith("; try ./demo --help\n"));
    return ending->text;
}

} // namespace

TEST(Options, WithoutAnyTheRunTakesThirtySeconds)
{
    const auto options = std::get<demo::Options>(Parse({}));
    EXPECT_EQ(options.seconds, 30);
    EXPECT_EQ(options.source, demo::Source::Automatic);
    EXPECT_TRUE(options.wantsColor && options.wantsView && options.wantsSandbox);
    EXPECT_EQ(options.folder, "demo-out");
}

TEST(Options, EachIsTakenOver)
{
    const auto options = std::get<demo::Options>(
        Parse({ "--seconds", "5", "--builtin", "--plain", "--no-color", "--no-sandbox", "--out=x" }));
    EXPECT_EQ(options.seconds, 5);
    EXPECT_EQ(options.source, demo::Source::BuiltIn);
    EXPECT_FALSE(options.wantsColor || options.wantsView || options.wantsSandbox);
    EXPECT_EQ(options.folder, "x");
    EXPECT_EQ(
        std::get<demo::Options>(Parse({ "--seconds=3600", "--picture" })).source, demo::Source::Picture);
}

TEST(Options, HelpIsNoFailure)
{
    for (const char* const word : { "-h", "--help" })
        EXPECT_EQ(std::get<demo::Ending>(Parse({ word })).status, 0);
}

TEST(Options, WhatIsWrongIsNamed)
{
    for (const char* const text : { "4", "3601", "x", "5x", "", "-5", "99999999999" })
        EXPECT_THAT(Problem({ "--seconds", text }), testing::HasSubstr(std::string("not '") + text + "'"));
    EXPECT_THAT(Problem({ "--seconds" }), testing::HasSubstr("--seconds needs a value"));
    EXPECT_THAT(Problem({ "--out=" }), testing::HasSubstr("--out needs a folder"));
    EXPECT_THAT(Problem({ "--fast" }), testing::HasSubstr("there is no option '--fast'"));
    EXPECT_THAT(Problem({ "5" }), testing::HasSubstr("there is no option '5'"));
}
