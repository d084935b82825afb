#include "arq/request_list.h"

#include <gtest/gtest.h>

#include <initializer_list>

#include "support/test_packets.h"

using test_support::AppendHost16;
using test_support::Bytes;
using test_support::Concat;
using test_support::RawRequest;
using test_support::Request;

namespace {

RequestList ListOf(const Bytes& bytes)
{
    return { bytes.data(), static_cast<int32_t>(bytes.size()) };
}

// A request of these list bytes with the checksum written by hand.
Bytes WithChecksum(uint16_t checksum, const Bytes& list)
{
    Bytes request;
    AppendHost16(request, 0);
    AppendHost16(request, checksum);
    for (int i = 0; i < 3; ++i)
        AppendHost16(request, 0);
    return Concat({ request, list });
}

Bytes Words(std::initializer_list<uint16_t> words)
{
    Bytes bytes;
    for (const uint16_t word : words)
        AppendHost16(bytes, word);
    return bytes;
}

struct ChecksumCase {
    const char* name;
    uint16_t right;
    Bytes list;
};

TEST(RequestChecksum, ChecksumAndListWordsMakeZeroModulo65536)
{
    const ChecksumCase cases[] = {
        { "no list", 0, {} },
        { "one word", 0xFFFF, Words({ 1 }) },
        { "a sum of exactly 65536", 0, Words({ 0x8000, 0x8000 }) },
        { "a sum above 65536 without end-around carry", 1, Words({ 0xFFFF, 0xFFFF, 1 }) },
        { "three times the largest word", 3, Words({ 0xFFFF, 0xFFFF, 0xFFFF }) },
        { "a list of zeroes", 0, Words({ 0, 0, 0 }) },
        { "one odd byte alone", 0xFF01, { 0xFF } },
        { "an odd byte behind a word", 0xFE9D, Concat({ Words({ 0x0064 }), { 0xFF } }) },
        { "an odd byte that wraps the sum", 0, Concat({ Words({ 0xFFFF }), { 0x01 } }) },
    };
    for (const ChecksumCase& c : cases) {
        EXPECT_TRUE(ListOf(WithChecksum(c.right, c.list)).IsChecksumRight()) << c.name;
        const auto tooHigh = static_cast<uint16_t>(c.right + 1);
        const auto tooLow = static_cast<uint16_t>(c.right - 1);
        EXPECT_FALSE(ListOf(WithChecksum(tooHigh, c.list)).IsChecksumRight()) << c.name;
        EXPECT_FALSE(ListOf(WithChecksum(tooLow, c.list)).IsChecksumRight()) << c.name;
    }
}

TEST(RequestChecksum, DoesNotCoverCountAndWindow)
{
    const Bytes request = RawRequest(0x1234, Words({ 5, 6 }), { 7, 8, 9 });
    EXPECT_TRUE(ListOf(request).IsChecksumRight());
}

TEST(RequestChecksum, CoversTheBytesThatCameWhateverTheCountSays)
{
    const Bytes list = Words({ 100, 200, 300 });
    for (const uint16_t count : std::initializer_list<uint16_t> { 0, 1, 3, 4, 65535 })
        EXPECT_TRUE(ListOf(RawRequest(count, list)).IsChecksumRight()) << count;
    const Bytes whole = RawRequest(3, list);
    EXPECT_FALSE(ListOf(Bytes(whole.begin(), whole.end() - 2)).IsChecksumRight());
}

TEST(RequestChecksum, OfALongListWrapsManyTimes)
{
    Bytes list;
    for (uint32_t i = 0; i < 763; ++i)
        AppendHost16(list, static_cast<uint16_t>(65535 - i));
    EXPECT_TRUE(ListOf(RawRequest(763, list)).IsChecksumRight());
    list.push_back(0x80);
    EXPECT_TRUE(ListOf(RawRequest(763, list)).IsChecksumRight());
}

TEST(RequestList, ReadsCountWindowAndNumbers)
{
    const Bytes request = Request({ 0x0102, 65535, 0 }, { 3, 250, 17 });
    const RequestList list = ListOf(request);
    EXPECT_EQ(list.Count(), 3U);
    EXPECT_EQ(list.Retries(), 3);
    EXPECT_EQ(list.IntervalMs(), 250);
    EXPECT_EQ(list.ExtraMs(), 17);
    EXPECT_EQ(list[0], 0x0102);
    EXPECT_EQ(list[1], 65535);
    EXPECT_EQ(list[2], 0);
}

TEST(RequestList, ReadsTheLargestCountAsItIs)
{
    EXPECT_EQ(ListOf(RawRequest(65535, {})).Count(), 65535U);
}

} // namespace
