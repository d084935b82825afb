#include "base/plain_word.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <thread>

namespace {

TEST(PlainWord, StartsAtZeroOrAtTheGivenValue)
{
    const PlainWord<uint32_t> zero;
    const PlainWord<uint32_t> given { 7 };
    EXPECT_EQ(zero.Load(), 0U);
    EXPECT_EQ(given.Load(), 7U);
}

TEST(PlainWord, ReadsAndAssignsLikeAPlainVariable)
{
    PlainWord<int32_t> word;
    word = -3;
    EXPECT_EQ(word, -3);
    PlainWord<int32_t> other { 9 };
    other = word;
    EXPECT_EQ(other, -3);
    word.Store(4);
    EXPECT_EQ(word, 4);
    EXPECT_EQ(other, -3);
}

TEST(PlainWord, AddWrapsUnsignedTypesAtTheirWidth)
{
    PlainWord<uint32_t> wide { 0xFFFFFFFF };
    wide.Add(2);
    EXPECT_EQ(wide, 1U);
    PlainWord<uint8_t> narrow { 250 };
    narrow.Add(10);
    EXPECT_EQ(narrow, 4);
    PlainWord<uint64_t> count { 0xFFFFFFFF };
    count.Add(1);
    EXPECT_EQ(count, 0x100000000U);
}

TEST(PlainWord, HoldsAFlag)
{
    PlainWord<bool> flag;
    EXPECT_FALSE(flag);
    flag = true;
    EXPECT_TRUE(flag);
    EXPECT_TRUE(PlainWord<bool>(true).Load());
    flag.Store(false);
    EXPECT_FALSE(flag.Load());
}

template <typename T>
constexpr bool HAS_ADD = requires(PlainWord<T> word, T amount)
{
    word.Add(amount);
};

TEST(PlainWord, OffersAddForNumbersButNotForFlags)
{
    EXPECT_TRUE(HAS_ADD<uint8_t>);
    EXPECT_TRUE(HAS_ADD<int64_t>);
    EXPECT_FALSE(HAS_ADD<bool>);
    EXPECT_FALSE(HAS_ADD<uint8_t*>);
}

TEST(PlainWord, TakesNoMoreRoomThanItsValue)
{
    EXPECT_EQ(sizeof(PlainWord<bool>), 1U);
    EXPECT_EQ(sizeof(PlainWord<uint8_t>), 1U);
    EXPECT_EQ(sizeof(PlainWord<uint32_t>), 4U);
    EXPECT_EQ(sizeof(PlainWord<uint64_t>), 8U);
    EXPECT_EQ(sizeof(PublishedPtr<int>), sizeof(int*));
}

TEST(PublishedWord, KeepsWhatWasStored)
{
    PublishedWord<int32_t> word { 5 };
    EXPECT_EQ(word.Load(), 5);
    word.Store(-6);
    EXPECT_EQ(word.Load(), -6);
    EXPECT_EQ(PublishedWord<int32_t>().Load(), 0);
}

// The value is plain: without the order of the store or of the load the thread sanitizer reports a race.
TEST(PublishedWord, HandsOverWhatWasWrittenBeforeItAsTheThreadSanitizerSees)
{
    int value = 0;
    PublishedWord<int32_t> isWritten { 0 };
    std::thread writer([&] {
        value = 7;
        isWritten.Store(1);
    });
    while (isWritten.Load() == 0)
        std::this_thread::yield();
    EXPECT_EQ(value, 7);
    writer.join();
}

TEST(PublishedPtr, IsNullUntilStored)
{
    PublishedPtr<int> pointer;
    EXPECT_EQ(pointer.Load(), nullptr);
    int value = 0;
    pointer.Store(&value);
    EXPECT_EQ(pointer.Load(), &value);
}

// As for PublishedWord.
TEST(PublishedPtr, HandsOverWhatWasWrittenBeforeItAsTheThreadSanitizerSees)
{
    int value = 0;
    PublishedPtr<int> pointer;
    std::thread writer([&] {
        value = 7;
        pointer.Store(&value);
    });
    const int* seen = nullptr;
    while ((seen = pointer.Load()) == nullptr)
        std::this_thread::yield();
    EXPECT_EQ(*seen, 7);
    writer.join();
}

TEST(PublishedPtr, ClearIfLeavesAnotherPointerAlone)
{
    int first = 0;
    int second = 0;
    PublishedPtr<int> pointer;
    pointer.Store(&second);
    pointer.ClearIf(&first);
    EXPECT_EQ(pointer.Load(), &second);
    pointer.ClearIf(&second);
    EXPECT_EQ(pointer.Load(), nullptr);
}

} // namespace
