#include "arqctl/core/clean_text.h"

#include <gtest/gtest.h>

#include <random>

namespace arqctl {
namespace {

TEST(CleanText, WhatIsPrintableStays)
{
    for (const char* text : { "", "studio-b", "Köln 2", "演播室", "🎥", "a\"b\\c<d>" })
        EXPECT_EQ(CleanText(text, 64), text);
}

TEST(CleanText, WhatIsNotPrintableIsAQuestionMarkEach)
{
    EXPECT_EQ(CleanText("a\nb\x1B[31m\x7F", 64), "a?b?[31m?");
    EXPECT_EQ(CleanText(std::string_view("a\0b", 3), 64), "a?b");
    EXPECT_EQ(CleanText("a\u0085b\u202Ec\u2028d\uFEFFe\uFFFFf", 64), "a?b?c?d?e?f");
}

TEST(CleanText, BytesThatAreNoUtf8AreAQuestionMarkEach)
{
    EXPECT_EQ(CleanText("a\x80z", 64), "a?z");
    EXPECT_EQ(CleanText("a\xC3", 64), "a?");
    EXPECT_EQ(CleanText("\xE2\x82z", 64), "??z") << "cut short";
    EXPECT_EQ(CleanText("\xC0\x80", 64), "??") << "written too long";
    EXPECT_EQ(CleanText("\xE0\x80\x80", 64), "???") << "written too long";
    EXPECT_EQ(CleanText("\xED\xA0\x80", 64), "???") << "half of a pair";
    EXPECT_EQ(CleanText("\xF4\x90\x80\x80", 64), "????") << "beyond the last";
}

TEST(CleanText, IsCutBetweenCharacters)
{
    EXPECT_EQ(CleanText(std::string(100, 'x'), 64), std::string(64, 'x'));
    EXPECT_EQ(CleanText("ab€", 5), "ab€");
    EXPECT_EQ(CleanText("ab€", 4), "ab");
}

TEST(CleanText, WhateverComesInWhatComesOutIsCleanAlready)
{
    std::mt19937 random(7);
    for (int round = 0; round < 20'000; ++round) {
        std::string bytes(random() % 12, ' ');
        for (char& byte : bytes)
            byte = static_cast<char>(random() % 4 == 0 ? 0xE2 + random() % 20 : random());
        const std::string clean = CleanText(bytes, 8);
        EXPECT_LE(clean.size(), 8U);
        EXPECT_EQ(CleanText(clean, 8), clean);
    }
}

} // namespace
} // namespace arqctl
