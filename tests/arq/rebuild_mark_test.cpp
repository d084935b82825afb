#include "arq/rebuild_mark.h"

#include <gtest/gtest.h>

#include <thread>

#include "base/plain_word.h"

namespace {

TEST(RebuildMark, StandsStillUntilARebuildBegins)
{
    RebuildMark mark;
    const uint32_t count = mark.Read();
    EXPECT_TRUE(mark.IsStill(count));
    EXPECT_TRUE(mark.IsStill(count)); // asking changes nothing
    mark.Begin();
    EXPECT_FALSE(mark.IsStill(count));
    mark.End();
    EXPECT_FALSE(mark.IsStill(count));
    EXPECT_TRUE(mark.IsStill(mark.Read()));
}

TEST(RebuildMark, IsNeverStillFromAReadDuringARebuild)
{
    RebuildMark mark;
    mark.Begin();
    const uint32_t count = mark.Read();
    EXPECT_FALSE(mark.IsStill(count));
    mark.End();
    EXPECT_FALSE(mark.IsStill(count));
}

// The value is plain: without End's release or Read's acquire the thread sanitizer reports a race.
TEST(RebuildMark, HandsOverARebuildAsTheThreadSanitizerSees)
{
    RebuildMark mark;
    int value = 0;
    std::thread builder([&] {
        mark.Begin();
        value = 7;
        mark.End();
    });
    while (mark.Read() != 2)
        std::this_thread::yield();
    EXPECT_EQ(value, 7);
    builder.join();
}

// As above for the other direction: what was read before IsStill is not written before Begin.
TEST(RebuildMark, KeepsTheNextRebuildBehindACopyAsTheThreadSanitizerSees)
{
    RebuildMark mark;
    int value = 7;
    int copy = 0;
    bool isStill = false;
    PlainWord<bool> isCopied { false };
    std::thread reader([&] {
        const uint32_t count = mark.Read();
        copy = value;
        isStill = mark.IsStill(count);
        isCopied = true;
    });
    while (!isCopied)
        std::this_thread::yield();
    mark.Begin();
    value = 8;
    mark.End();
    reader.join();
    EXPECT_EQ(copy, 7);
    EXPECT_TRUE(isStill);
}

// With an update lost between them the count would stay odd, and the record would never be sent again.
TEST(RebuildMark, RebuildsOfTwoThreadsThatOverlapLeaveItStandingStill)
{
    RebuildMark mark;
    const auto rebuild = [&] {
        for (int i = 0; i < 200000; ++i) {
            mark.Begin();
            mark.End();
        }
    };
    std::thread other(rebuild);
    rebuild();
    other.join();
    EXPECT_TRUE(mark.IsStill(mark.Read()));
}

} // namespace
