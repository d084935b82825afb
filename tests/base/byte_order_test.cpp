#include "base/byte_order.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>

namespace {

using Four = std::array<uint8_t, 4>;

template <typename Word>
Four BytesAfterSet(uint32_t value)
{
    Four bytes { 0xEE, 0xEE, 0xEE, 0xEE };
    reinterpret_cast<Word*>(bytes.data())->Set(static_cast<decltype(Word().Get())>(value));
    return bytes;
}

TEST(ByteOrder, WireByteReadsAndWritesOneByte)
{
    EXPECT_EQ(BytesAfterSet<WireByte>(0xA5), (Four { 0xA5, 0xEE, 0xEE, 0xEE }));
    const uint8_t byte = 0x5A;
    EXPECT_EQ(reinterpret_cast<const WireByte*>(&byte)->Get(), 0x5A);
}

TEST(ByteOrder, Be16PutsTheMostSignificantByteFirst)
{
    EXPECT_EQ(BytesAfterSet<Be16>(0x1234), (Four { 0x12, 0x34, 0xEE, 0xEE }));
    const Four bytes { 0xFE, 0x01, 0, 0 };
    EXPECT_EQ(reinterpret_cast<const Be16*>(bytes.data())->Get(), 0xFE01);
}

TEST(ByteOrder, Be32PutsTheMostSignificantByteFirst)
{
    EXPECT_EQ(BytesAfterSet<Be32>(0x12345678), (Four { 0x12, 0x34, 0x56, 0x78 }));
    const Four bytes { 0xFE, 0x01, 0x80, 0x7F };
    EXPECT_EQ(reinterpret_cast<const Be32*>(bytes.data())->Get(), 0xFE01807FU);
}

TEST(ByteOrder, Host16KeepsTheOrderOfThisMachine)
{
    const uint16_t value = 0x1234;
    Four expected { 0xEE, 0xEE, 0xEE, 0xEE };
    std::memcpy(expected.data(), &value, sizeof(value));
    EXPECT_EQ(BytesAfterSet<Host16>(value), expected);
    EXPECT_EQ(reinterpret_cast<const Host16*>(expected.data())->Get(), value);
}

TEST(ByteOrder, Host32KeepsTheOrderOfThisMachine)
{
    const uint32_t value = 0x12345678;
    Four expected {};
    std::memcpy(expected.data(), &value, sizeof(value));
    EXPECT_EQ(BytesAfterSet<Host32>(value), expected);
    EXPECT_EQ(reinterpret_cast<const Host32*>(expected.data())->Get(), value);
}

TEST(ByteOrder, WordsWorkAtOddAddresses)
{
    alignas(8) uint8_t bytes[16] {};
    reinterpret_cast<Be16*>(bytes + 1)->Set(0x1234);
    reinterpret_cast<Be32*>(bytes + 3)->Set(0x56789ABC);
    reinterpret_cast<Host16*>(bytes + 7)->Set(0xDEF0);
    reinterpret_cast<Host32*>(bytes + 9)->Set(0x13579BDF);
    EXPECT_EQ(reinterpret_cast<const Be16*>(bytes + 1)->Get(), 0x1234);
    EXPECT_EQ(reinterpret_cast<const Be32*>(bytes + 3)->Get(), 0x56789ABCU);
    EXPECT_EQ(reinterpret_cast<const Host16*>(bytes + 7)->Get(), 0xDEF0);
    EXPECT_EQ(reinterpret_cast<const Host32*>(bytes + 9)->Get(), 0x13579BDFU);
}

TEST(SeqDiff, IsTheSignedDistanceOnAWrappingCounter)
{
    EXPECT_EQ(SeqDiff(10, 10), 0);
    EXPECT_EQ(SeqDiff(11, 10), 1);
    EXPECT_EQ(SeqDiff(10, 11), -1);
    EXPECT_EQ(SeqDiff(0, 65535), 1);
    EXPECT_EQ(SeqDiff(65535, 0), -1);
    EXPECT_EQ(SeqDiff(32767, 0), 32767);
    EXPECT_EQ(SeqDiff(32768, 0), -32768);
}

TEST(TicksSince, IsTheSignedDistanceOnAWrappingClock)
{
    EXPECT_EQ(TicksSince(100, 100), 0);
    EXPECT_EQ(TicksSince(101, 100), 1);
    EXPECT_EQ(TicksSince(100, 101), -1);
    EXPECT_EQ(TicksSince(5, 0xFFFFFFFB), 10);
    EXPECT_EQ(TicksSince(0xFFFFFFFB, 5), -10);
    EXPECT_EQ(TicksSince(0x7FFFFFFF, 0), INT32_MAX);
    EXPECT_EQ(TicksSince(0x80000000, 0), INT32_MIN);
}

} // namespace
