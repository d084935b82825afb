#include "input/packet_buffer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <set>
#include <vector>

#include "support/allocation_hooks.h"
#include "support/test_packets.h"

using test_support::AllocationCount;
using test_support::FailNthAllocation;

namespace {

TEST(PacketBuffer, TotalLengthIsTheSumOfItsParts)
{
    PacketBuffer buffer {};
    for (int32_t i = 0; i < 4; ++i)
        buffer.partLengths[i] = 1 << i;
    const int32_t expected[] = { 0, 1, 3, 7, 15 };
    for (uint32_t count = 0; count <= 4; ++count) {
        buffer.partCount = count;
        EXPECT_EQ(buffer.TotalLength(), expected[count]) << count << " parts";
    }
}

TEST(PacketBuffer, TotalLengthIsZeroForMoreThanFourParts)
{
    PacketBuffer buffer {};
    for (PlainWord<int32_t>& length : buffer.partLengths)
        length = 100;
    for (const uint32_t count : { 5U, 6U, 0xFFFFFFFFU }) {
        buffer.partCount = count;
        EXPECT_EQ(buffer.TotalLength(), 0) << count << " parts";
    }
}

TEST(PacketBuffer, DataAndLengthArePartZero)
{
    uint8_t data[4] {};
    PacketBuffer buffer {};
    buffer.parts[0] = data;
    buffer.SetLength(3);
    EXPECT_EQ(buffer.Data(), data);
    EXPECT_EQ(buffer.Length(), 3);
    EXPECT_EQ(buffer.partLengths[0], 3);
}

TEST(PacketBufferPool, SlicesLieOneBehindTheOther)
{
    const auto pool = PacketBufferPool::create(4, 100);
    ASSERT_TRUE(pool);
    const uint8_t* first = pool->get()->Data();
    for (int i = 1; i < 4; ++i)
        EXPECT_EQ(pool->get()->Data(), first + i * 100);
}

TEST(PacketBufferPool, ADefaultSliceHas1536Bytes)
{
    const auto pool = PacketBufferPool::createDefault(2);
    ASSERT_TRUE(pool);
    const uint8_t* first = pool->get()->Data();
    EXPECT_EQ(pool->get()->Data() - first, 1536);
    EXPECT_EQ(pool->Count(), 2U);
}

TEST(PacketBufferPool, EveryByteOfEverySliceCanBeWritten)
{
    const auto pool = PacketBufferPool::createDefault(3);
    ASSERT_TRUE(pool);
    for (uint8_t i = 0; i < 3; ++i)
        std::fill_n(pool->get()->Data(), PacketBufferPool::SLICE_BYTES, i);
    for (uint8_t i = 0; i < 3; ++i) {
        const uint8_t* data = pool->get()->Data();
        EXPECT_EQ(std::count(data, data + PacketBufferPool::SLICE_BYTES, i), PacketBufferPool::SLICE_BYTES);
    }
}

TEST(PacketBufferPool, ANewBufferHasLengthZeroAndOnePart)
{
    const auto pool = PacketBufferPool::create(3, 64);
    ASSERT_TRUE(pool);
    for (int i = 0; i < 3; ++i) {
        const PacketBuffer* buffer = pool->get();
        EXPECT_EQ(buffer->Length(), 0);
        EXPECT_EQ(buffer->partCount, 1U);
    }
}

TEST(PacketBufferPool, DescriptorsHaveNoPartUntilTheyAreHandedOut)
{
    const auto pool = PacketBufferPool::create(2, 64);
    ASSERT_TRUE(pool);
    const PacketBuffer* first = pool->get();
    EXPECT_EQ(first[0].partCount, 1U);
    EXPECT_EQ(first[1].partCount, 0U); // the descriptors are one block, in ring order
    EXPECT_EQ(first[1].TotalLength(), 0);
}

TEST(PacketBufferPool, AfterCountGetsTheFirstComesBackWithItsOldLength)
{
    constexpr uint32_t COUNT = 5;
    const auto pool = PacketBufferPool::createDefault(COUNT);
    ASSERT_TRUE(pool);
    std::vector<PacketBuffer*> firstRound;
    for (uint32_t i = 0; i < COUNT; ++i) {
        firstRound.push_back(pool->get());
        firstRound.back()->SetLength(static_cast<int32_t>(1000 + i));
    }
    EXPECT_EQ(std::set<PacketBuffer*>(firstRound.begin(), firstRound.end()).size(), COUNT);
    for (uint32_t i = 0; i < 2 * COUNT; ++i) {
        PacketBuffer* buffer = pool->get();
        EXPECT_EQ(buffer, firstRound[i % COUNT]) << "get " << COUNT + i;
        EXPECT_EQ(buffer->Length(), static_cast<int32_t>(1000 + i % COUNT));
    }
}

TEST(PacketBufferPool, ABufferIsReusedThoughItsHolderHasNotFinished)
{
    const auto pool = PacketBufferPool::create(1, 64);
    ASSERT_TRUE(pool);
    PacketBuffer* held = pool->get();
    held->partCount = 2;
    EXPECT_EQ(pool->get(), held);
    EXPECT_EQ(held->partCount, 1U);
}

TEST(PacketBufferPool, GetLeavesUserWordsAlone)
{
    const auto pool = PacketBufferPool::create(1, 64);
    ASSERT_TRUE(pool);
    PacketBuffer* buffer = pool->get();
    for (uint32_t i = 0; i < 4; ++i)
        buffer->userWords[i] = 0xA0 + i;
    buffer->userWord = 0xB0;
    ASSERT_EQ(pool->get(), buffer);
    for (uint32_t i = 0; i < 4; ++i)
        EXPECT_EQ(buffer->userWords[i], 0xA0 + i);
    EXPECT_EQ(buffer->userWord, 0xB0U);
}

TEST(PacketBufferPool, AnEmptyPoolIsNotAFailure)
{
    const auto pool = PacketBufferPool::create(0, 1536);
    ASSERT_TRUE(pool);
    EXPECT_EQ(pool->Count(), 0U);
}

TEST(PacketBufferPool, ATailOfZeroesFollowsTheLastSlice)
{
    constexpr uint32_t TAIL_BYTES = 131072;
    const auto pool = PacketBufferPool::create(2, 100, TAIL_BYTES);
    ASSERT_TRUE(pool);
    (void)pool->get();
    const uint8_t* tail = pool->get()->Data() + 100;
    EXPECT_EQ(std::count(tail, tail + TAIL_BYTES, 0), TAIL_BYTES);
}

// Header, data block, descriptors and pointers. What was obtained before the failure must be freed again;
// the leak check of the address sanitizer sees it if not.
TEST(PacketBufferPool, AnyFailedAllocationYieldsNullAndLeaksNothing)
{
    constexpr int ALLOCATIONS = 4;
    for (int n = 1; n <= ALLOCATIONS; ++n) {
        const FailNthAllocation failure(n);
        EXPECT_FALSE(PacketBufferPool::createDefault(8)) << "allocation " << n;
        EXPECT_TRUE(failure.Fired()) << "allocation " << n;
    }
    const AllocationCount allocations;
    const auto pool = PacketBufferPool::createDefault(8);
    EXPECT_TRUE(pool);
    EXPECT_EQ(allocations.Count(), static_cast<uint64_t>(ALLOCATIONS));
}

TEST(PacketBufferPool, GetAllocatesNothing)
{
    const auto pool = PacketBufferPool::createDefault(8);
    ASSERT_TRUE(pool);
    const AllocationCount allocations;
    for (int i = 0; i < 100; ++i)
        (void)pool->get();
    EXPECT_EQ(allocations.Count(), 0U);
}

} // namespace
