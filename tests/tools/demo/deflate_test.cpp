#include "demo/deflate.h"

#include <numeric>
#include <random>
#include <string_view>

#include <gtest/gtest.h>

#include "tools/demo/inflate.h"

namespace {

std::vector<uint8_t> Bytes(std::string_view text)
{
    return { text.begin(), text.end() };
}

void ExpectBack(const std::vector<uint8_t>& bytes)
{
    const auto back = Inflate(demo::Compress(bytes));
    ASSERT_TRUE(back);
    EXPECT_EQ(*back, bytes);
}

} // namespace

TEST(Deflate, TheSumIsThatOfThePublishedExample)
{
    EXPECT_EQ(demo::Adler32(Bytes("Wikipedia")), 0x11E60398U);
    EXPECT_EQ(demo::Adler32({}), 1U);
}

TEST(Deflate, WhatIsCompressedComesBack)
{
    ExpectBack({});
    ExpectBack(Bytes("a"));
    ExpectBack(Bytes("ab"));
    ExpectBack(Bytes("abcabcabcabcabcx"));
    std::vector<uint8_t> every(256);
    std::iota(every.begin(), every.end(), uint8_t { 0 });
    ExpectBack(every);
}

TEST(Deflate, EveryLengthOfARunComesBack)
{
    for (size_t length = 1; length < 600; ++length) {
        std::vector<uint8_t> bytes = Bytes("xy");
        bytes.insert(bytes.end(), length, 'z');
        ExpectBack(bytes);
    }
}

TEST(Deflate, RepeatsAtEveryDistanceComeBackAlsoBeyondTheWindow)
{
    std::mt19937 draw(7);
    for (const size_t distance :
        { 3U, 4U, 5U, 8U, 9U, 100U, 1024U, 1025U, 24577U, 32767U, 32768U, 32769U, 40000U }) {
        std::vector<uint8_t> bytes(distance);
        for (uint8_t& byte : bytes)
            byte = static_cast<uint8_t>(draw());
        const std::vector<uint8_t> once = bytes;
        bytes.insert(bytes.end(), once.begin(), once.end());
        ExpectBack(bytes);
    }
}

TEST(Deflate, AnEvenAreaBecomesSmall)
{
    EXPECT_LT(demo::Compress(std::vector<uint8_t>(1'000'000, 7)).size(), 10'000U);
}
