#include "common/quantity.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <string_view>

namespace common {
namespace {

// What a text is read as, -1 if it is refused.
template <typename Value, bool (*parse)(std::string_view, Value&)>
Value Read(std::string_view text)
{
    Value value = -1;
    return parse(text, value) ? value : -1;
}

constexpr auto Duration = Read<int64_t, ParseDuration>;
constexpr auto Rate = Read<int64_t, ParseBitRate>;
constexpr auto Size = Read<int64_t, ParseSize>;
constexpr auto Ratio = Read<double, ParseRatio>;

TEST(Quantity, ADurationIsANumberWithAUnit)
{
    EXPECT_EQ(Duration("250us"), 250);
    EXPECT_EQ(Duration("600ms"), 600'000);
    EXPECT_EQ(Duration("1s"), 1'000'000);
    EXPECT_EQ(Duration("1.5 s"), 1'500'000);
    EXPECT_EQ(Duration(".5ms"), 500);
    EXPECT_EQ(Duration("2min"), 120'000'000);
    EXPECT_EQ(Duration("2m"), 120'000'000);
    EXPECT_EQ(Duration("1h"), 3'600'000'000);
    EXPECT_EQ(Duration("10MS"), 10'000);
    EXPECT_EQ(Duration("0"), 0);
}

TEST(Quantity, ADurationWithoutANumberOrAKnownUnitIsRefused)
{
    for (const char* text : { "", "5", "ms", "-5ms", "+5ms", "5 ", "5  ms", "5msx", "nan s", "inf s", "1e3ms",
             "0x5ms", "99999999999999999999h", " 5ms" })
        EXPECT_EQ(Duration(text), -1) << text;
}

TEST(Quantity, ABitRateCountsInThousands)
{
    EXPECT_EQ(Rate("8M"), 8'000'000);
    EXPECT_EQ(Rate("50Mbit/s"), 50'000'000);
    EXPECT_EQ(Rate("50 Mbit/s"), 50'000'000);
    EXPECT_EQ(Rate("5.5mbit"), 5'500'000);
    EXPECT_EQ(Rate("64k"), 64'000);
    EXPECT_EQ(Rate("64kbps"), 64'000);
    EXPECT_EQ(Rate("1G"), 1'000'000'000);
    EXPECT_EQ(Rate("800000"), 800'000);
    for (const char* text : { "", "M", "-1M", "5T", "5MB/h", "5%" })
        EXPECT_EQ(Rate(text), -1) << text;
}

TEST(Quantity, ASizeCountsInThousands)
{
    EXPECT_EQ(Size("64k"), 64'000);
    EXPECT_EQ(Size("64kB"), 64'000);
    EXPECT_EQ(Size("1500"), 1'500);
    EXPECT_EQ(Size("1500B"), 1'500);
    EXPECT_EQ(Size("1M"), 1'000'000);
    for (const char* text : { "", "k", "-1", "5ms" })
        EXPECT_EQ(Size(text), -1) << text;
}

TEST(Quantity, ARatioIsAPercentageOrAPartOfOne)
{
    EXPECT_DOUBLE_EQ(Ratio("5%"), 0.05);
    EXPECT_DOUBLE_EQ(Ratio("0.05"), 0.05);
    EXPECT_DOUBLE_EQ(Ratio("0.5 %"), 0.005);
    EXPECT_DOUBLE_EQ(Ratio("0"), 0);
    EXPECT_DOUBLE_EQ(Ratio("1"), 1);
    EXPECT_DOUBLE_EQ(Ratio("100%"), 1);
    for (const char* text : { "", "%", "101%", "1.01", "5", "-5%", "5%%", "nan", "inf" })
        EXPECT_EQ(Ratio(text), -1) << text;
}

TEST(Quantity, ARefusedTextLeavesTheResultAlone)
{
    int64_t value = 7;
    EXPECT_FALSE(ParseDuration("7", value));
    EXPECT_FALSE(ParseBitRate("x", value));
    EXPECT_FALSE(ParseSize("99999999G", value));
    EXPECT_EQ(value, 7);
}

TEST(Quantity, ADurationsTextIsReadBackAsTheSame)
{
    EXPECT_EQ(DurationText(0), "0s");
    EXPECT_EQ(DurationText(250), "250us");
    EXPECT_EQ(DurationText(600'000), "600ms");
    EXPECT_EQ(DurationText(30'000'000), "30s");
    EXPECT_EQ(DurationText(1'500'000), "1500ms");
    for (const int64_t value :
        { int64_t { 0 }, int64_t { 1 }, int64_t { 999 }, int64_t { 1001 }, int64_t { 61'000'000 } })
        EXPECT_EQ(Duration(DurationText(value)), value);
}

} // namespace
} // namespace common
