#include "replicator/read_section.h"

#include <sched.h>

#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include "replicator/loopback.h"

namespace {

using test_support::WaitFor;

TEST(ReadSections, WithoutReadersTheWriterDoesNotWait)
{
    ReadSections sections;
    sections.WaitForReaders();
    {
        const ReadSection section(sections);
    }
    sections.WaitForReaders();
    SUCCEED();
}

// Starts a writer while a reader is inside and tells whether it came back before the reader left.
TEST(ReadSections, TheWriterWaitsForAReaderThatEnteredBefore)
{
    ReadSections sections;
    const unsigned side = sections.Enter();
    std::atomic<bool> isDone { false };
    std::thread writer([&] {
        sections.WaitForReaders();
        isDone = true;
    });
    // New readers are counted elsewhere as soon as the writer has begun to wait.
    const bool hasBegun = WaitFor([&] {
        const unsigned now = sections.Enter();
        sections.Leave(now);
        return now != side || isDone;
    });
    for (int i = 0; i < 1000 && !isDone; ++i)
        (void)sched_yield();
    EXPECT_TRUE(hasBegun);
    EXPECT_FALSE(isDone);
    sections.Leave(side);
    writer.join();
    EXPECT_TRUE(isDone);
}

TEST(ReadSections, TheWriterWaitsForAReaderOfEitherSide)
{
    ReadSections sections;
    const unsigned first = sections.Enter();
    std::atomic<int> done { 0 };
    std::thread writer([&] {
        sections.WaitForReaders();
        ++done;
    });
    unsigned second = first;
    const bool hasBegun = WaitFor([&] {
        second = sections.Enter();
        if (second != first)
            return true;
        sections.Leave(second);
        return false;
    });
    ASSERT_TRUE(hasBegun);
    // The second reader is inside on the other side: a writer that starts now must wait for it as well.
    sections.Leave(first);
    std::thread other([&] {
        sections.WaitForReaders();
        ++done;
    });
    for (int i = 0; i < 1000; ++i)
        (void)sched_yield();
    sections.Leave(second);
    writer.join();
    other.join();
    EXPECT_EQ(done, 2);
}

// There is always a reader inside, but never the same one for long.
TEST(ReadSections, ReadersThatRelieveEachOtherDoNotKeepTheWriterForEver)
{
    ReadSections sections;
    std::atomic<bool> isDone { false };
    unsigned inside = sections.Enter();
    std::thread writer([&] {
        sections.WaitForReaders();
        isDone = true;
    });
    const bool ended = WaitFor([&] {
        const unsigned next = sections.Enter();
        sections.Leave(inside);
        inside = next;
        return isDone.load();
    });
    sections.Leave(inside);
    writer.join();
    EXPECT_TRUE(ended);
}

// What the writer destroys after its wait is never met by a reader that found it before.
TEST(ReadSections, AReaderNeverMeetsWhatWasDestroyedAfterTheWait)
{
    constexpr int ALIVE = 1;
    ReadSections sections;
    std::atomic<std::atomic<int>*> published { new std::atomic<int>(ALIVE) };
    std::atomic<bool> isOver { false };
    std::atomic<int> met { 0 };
    const auto read = [&] {
        while (!isOver) {
            const ReadSection section(sections);
            if (const std::atomic<int>* word = published.load(); word != nullptr && *word != ALIVE)
                ++met;
        }
    };
    std::thread reader1(read);
    std::thread reader2(read);
    for (int i = 0; i < 2000; ++i) {
        std::atomic<int>* old = published.exchange(nullptr);
        sections.WaitForReaders();
        *old = 0;
        delete old;
        published = new std::atomic<int>(ALIVE);
    }
    isOver = true;
    reader1.join();
    reader2.join();
    delete published.load();
    EXPECT_EQ(met, 0);
}

} // namespace
