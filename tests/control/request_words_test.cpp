#include "control/request_words.h"

#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Words = std::vector<std::string>;

Words Split(std::string_view request)
{
    const RequestWords words(request);
    Words result;
    for (size_t i = 0; i < words.Count(); ++i)
        result.emplace_back(words.Word(i));
    return result;
}

TEST(RequestWords, AreSplitAtBlanksAndRunsOfBlanksCountAsOne)
{
    EXPECT_EQ(Split("Add a"), (Words { "Add", "a" }));
    EXPECT_EQ(Split("Add   a"), (Words { "Add", "a" }));
    EXPECT_EQ(Split("  Add a  "), (Words { "Add", "a" }));
    EXPECT_EQ(Split("List"), (Words { "List" }));
}

TEST(RequestWords, TheFirstIsTheCommandAndTheSecondItsArgument)
{
    const RequestWords words("Add   10.0.0.1:5000 more");
    EXPECT_EQ(words.Command(), "Add");
    EXPECT_EQ(words.Argument(), "10.0.0.1:5000");
}

TEST(RequestWords, WhatIsNotThereIsEmpty)
{
    for (const char* request : { "", " ", "     " }) {
        const RequestWords words(request);
        EXPECT_EQ(words.Count(), 0U);
        EXPECT_EQ(words.Command(), "");
        EXPECT_EQ(words.Argument(), "");
        EXPECT_EQ(words.Word(100), "");
    }
    EXPECT_EQ(RequestWords("Add ").Argument(), "");
}

TEST(RequestWords, OnlyBlanksSeparate)
{
    EXPECT_EQ(Split("List\n"), (Words { "List\n" }));
    EXPECT_EQ(Split("Add\ta\r\n"), (Words { "Add\ta\r\n" }));
}

TEST(RequestWords, TheCommandAndTenMoreAreKept)
{
    EXPECT_EQ(
        Split("0 1 2 3 4 5 6 7 8 9 10"), (Words { "0", "1", "2", "3", "4", "5", "6", "7", "8", "9", "10" }));
    EXPECT_EQ(Split("0 1 2 3 4 5 6 7 8 9 10 11 12").size(), 11U);
    EXPECT_EQ(Split("0 1 2 3 4 5 6 7 8 9 10 11 12").back(), "10");
}

TEST(RequestWords, AWordMayFillTheWholeRequest)
{
    const std::string request(1024, 'x');
    EXPECT_EQ(Split(request), (Words { request }));
}

// The same, letter by letter.
Words PlainSplit(const std::string& request)
{
    Words words;
    std::string word;
    for (const char letter : request + " ") {
        if (letter != ' ')
            word += letter;
        else if (!word.empty() && words.size() < 11)
            words.push_back(word);
        if (letter == ' ')
            word.clear();
    }
    return words;
}

TEST(RequestWords, AgreeWithAPlainSplitForAnyBytes)
{
    std::mt19937 random(20240611);
    const std::string letters(" \0ab \n\xff ", 8);
    for (int round = 0; round < 20000; ++round) {
        std::string request(random() % 60, ' ');
        for (char& letter : request)
            letter = letters[random() % letters.size()];
        ASSERT_EQ(Split(request), PlainSplit(request)) << testing::PrintToString(request);
    }
}

} // namespace
