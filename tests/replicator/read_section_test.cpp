#include "replicator/read_section.h"

#include <atomic>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

namespace {

// Looks that a period takes at most when no reader is inside.
constexpr int ENOUGH_LOOKS = 1;

// Several readers in one function, which Clang's analysis would take for one that enters twice.
unsigned Enter(ReadSections& sections) UNLOCKED_BY_DESIGN
{
    return sections.Enter();
}

void Leave(ReadSections& sections, unsigned side) UNLOCKED_BY_DESIGN
{
    sections.Leave(side);
}

// The destroyer's looks, one after the other, until the period is over or it has looked `looks` times.
bool IsOverWithin(ReadSections& sections, int looks)
{
    for (int i = 0; i < looks; ++i) {
        if (sections.IsPeriodOver())
            return true;
    }
    return false;
}

TEST(ReadSections, WithoutReadersTheFirstLookEndsThePeriod)
{
    ReadSections sections;
    sections.BeginPeriod();
    EXPECT_TRUE(IsOverWithin(sections, ENOUGH_LOOKS));
    sections.BeginPeriod();
    EXPECT_TRUE(IsOverWithin(sections, ENOUGH_LOOKS));
}

TEST(ReadSections, AReaderThatEnteredBeforeThePeriodHoldsItUpUntilItLeaves)
{
    for (int periodsBefore = 0; periodsBefore < 3; ++periodsBefore) { // whichever side is open
        ReadSections sections;
        for (int i = 0; i < periodsBefore; ++i) {
            sections.BeginPeriod();
            ASSERT_TRUE(IsOverWithin(sections, ENOUGH_LOOKS));
        }
        const unsigned side = Enter(sections);
        sections.BeginPeriod();
        EXPECT_FALSE(IsOverWithin(sections, 100)) << periodsBefore;
        Leave(sections, side);
        EXPECT_TRUE(IsOverWithin(sections, ENOUGH_LOOKS)) << periodsBefore;
    }
}

// One reader stays while others come and go; then it leaves and another one, on the other side, stays.
TEST(ReadSections, AReaderOnEitherSideHoldsThePeriodUp)
{
    ReadSections sections;
    const unsigned first = Enter(sections);
    sections.BeginPeriod();
    EXPECT_FALSE(sections.IsPeriodOver());
    const unsigned second = Enter(sections);
    ASSERT_NE(first, second) << "newcomers are counted on the other side by now";
    Leave(sections, first);
    EXPECT_TRUE(sections.IsPeriodOver()) << "the second one entered after the period had begun";
    sections.BeginPeriod();
    EXPECT_FALSE(IsOverWithin(sections, 100)) << "but it is inside of the next";
    Leave(sections, second);
    EXPECT_TRUE(sections.IsPeriodOver());
}

TEST(ReadSections, AReaderThatEntersDuringThePeriodDoesNotHoldItUp)
{
    ReadSections sections;
    const unsigned before = Enter(sections);
    sections.BeginPeriod();
    ASSERT_FALSE(sections.IsPeriodOver());
    const unsigned during = Enter(sections);
    Leave(sections, before);
    EXPECT_TRUE(IsOverWithin(sections, ENOUGH_LOOKS));
    Leave(sections, during);
}

// There is always a reader inside, but never the same one for long.
TEST(ReadSections, ReadersThatRelieveEachOtherDoNotHoldAPeriodUpForEver)
{
    ReadSections sections;
    unsigned inside = Enter(sections);
    for (int period = 0; period < 10; ++period) {
        sections.BeginPeriod();
        int looks = 0;
        while (!sections.IsPeriodOver()) {
            ASSERT_LT(++looks, 10);
            const unsigned next = Enter(sections);
            Leave(sections, inside);
            inside = next;
        }
    }
    Leave(sections, inside);
}

// What is destroyed after a period is never met by a reader that found it before. The sanitizers would report a
// reader that comes too late.
TEST(ReadSections, NoReaderMeetsWhatWasDestroyedAfterAPeriod)
{
    constexpr int LIVES = 1;
    ReadSections sections;
    std::atomic<int*> published { new int(LIVES) };
    std::atomic<bool> isOver { false };
    std::atomic<int> met { 0 };
    const auto read = [&] {
        while (!isOver) {
            const unsigned side = Enter(sections);
            if (*published.load() != LIVES)
                ++met;
            Leave(sections, side);
        }
    };
    std::thread reader1(read);
    std::thread reader2(read);
    for (int i = 0; i < 2000; ++i) {
        const std::unique_ptr<int> old(published.exchange(new int(LIVES)));
        sections.BeginPeriod();
        while (!sections.IsPeriodOver())
            std::this_thread::yield();
        *old = 0;
    }
    isOver = true;
    reader1.join();
    reader2.join();
    delete published.load();
    EXPECT_EQ(met, 0);
}

} // namespace
