#include "replicator/socket_chooser.h"

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

// The sockets of the next datagrams.
std::vector<int32_t> Turns(SocketChooser& chooser, int count)
{
    std::vector<int32_t> turns;
    for (int i = 0; i < count; ++i) {
        turns.push_back(chooser.Current());
        chooser.Advance();
    }
    return turns;
}

std::vector<int32_t> TurnsOf(int32_t interfaces, uint32_t percent, int count)
{
    SocketChooser chooser;
    chooser.UseInterfaces(interfaces, percent);
    return Turns(chooser, count);
}

using Sequence = std::vector<int32_t>;

TEST(SocketChooser, WithoutInterfacesEveryDatagramUsesSocket0)
{
    SocketChooser chooser;
    EXPECT_EQ(chooser.Count(), 1);
    EXPECT_EQ(Turns(chooser, 4), (Sequence { 0, 0, 0, 0 }));
}

TEST(SocketChooser, SeventyPercentFollowTheCreditsOfSeventyAndThirty)
{
    const Sequence first { 0, 0, 0, 1, 0, 0, 1, 0, 0, 1 };
    Sequence expected = first;
    for (int i = 0; i < 3; ++i)
        expected.insert(expected.end(), first.begin(), first.end());
    EXPECT_EQ(TurnsOf(2, 70, 40), expected);
}

TEST(SocketChooser, ThirtyPercentPreferSocket1)
{
    // Credits 30/70, step 30: 1, 1, then 30 against 10 gives 0, then 0 against 10 gives 1, which resets both.
    EXPECT_EQ(TurnsOf(2, 30, 5), (Sequence { 0, 1, 1, 0, 1 }));
}

TEST(SocketChooser, WithZeroPercentEveryDatagramAfterTheFirstUsesSocket1)
{
    EXPECT_EQ(TurnsOf(2, 0, 6), (Sequence { 0, 1, 1, 1, 1, 1 }));
}

TEST(SocketChooser, WithAHundredPercentEveryDatagramUsesSocket0)
{
    EXPECT_EQ(TurnsOf(2, 100, 6), (Sequence { 0, 0, 0, 0, 0, 0 }));
}

TEST(SocketChooser, ShareOfOneAndNinetyNinePercentIsKeptOverAHundredDatagrams)
{
    const Sequence turns = TurnsOf(2, 99, 101);
    EXPECT_EQ(std::count(turns.begin() + 1, turns.end(), 1), 1);
    const Sequence others = TurnsOf(2, 1, 101);
    EXPECT_EQ(std::count(others.begin() + 1, others.end(), 0), 1);
}

TEST(SocketChooser, AboveAHundredPercentBothShareEvenly)
{
    const Sequence even { 0, 1, 0, 1, 0, 1, 0 };
    EXPECT_EQ(TurnsOf(2, 101, 7), even);
    EXPECT_EQ(TurnsOf(2, 0xFFFFFFFF, 7), even);
    EXPECT_EQ(TurnsOf(2, 50, 7), even);
}

TEST(SocketChooser, OneInterfaceSendsEverythingWhateverThePercentage)
{
    for (const uint32_t percent : { 0U, 30U, 50U, 100U, 101U })
        EXPECT_EQ(TurnsOf(1, percent, 5), (Sequence { 0, 0, 0, 0, 0 })) << percent;
}

TEST(SocketChooser, MoreThanTwoInterfacesShareBetweenTheFirstTwo)
{
    EXPECT_EQ(TurnsOf(4, 70, 10), TurnsOf(2, 70, 10));
}

TEST(SocketChooser, UseInterfacesStartsAgainAtSocket0WithFreshCredits)
{
    SocketChooser chooser;
    chooser.UseInterfaces(2, 70);
    (void)Turns(chooser, 3);
    EXPECT_EQ(chooser.Current(), 1);
    chooser.UseInterfaces(2, 70);
    EXPECT_EQ(chooser.Count(), 2);
    EXPECT_EQ(Turns(chooser, 5), (Sequence { 0, 0, 0, 1, 0 }));
}

TEST(SocketChooser, TheIndexStaysWithinTheSocketsWhileTwoThreadsStepIt)
{
    SocketChooser chooser;
    chooser.UseInterfaces(2, 70);
    std::atomic<int> outside { 0 };
    const auto step = [&] {
        for (int i = 0; i < 50000; ++i) {
            chooser.Advance();
            const int32_t current = chooser.Current();
            if (current < 0 || current >= 2)
                ++outside;
        }
    };
    std::thread other(step);
    step();
    other.join();
    EXPECT_EQ(outside, 0);
}

} // namespace
