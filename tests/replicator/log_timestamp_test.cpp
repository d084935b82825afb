#include "replicator/log_timestamp.h"

#include <barrier>
#include <cstdio>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/captured_output.h"

namespace {

using test_support::CapturedOutput;
using test_support::CountOf;

std::string Written()
{
    FILE* file = tmpfile();
    LogTimestamp(file);
    std::rewind(file);
    char text[64] = "";
    const size_t count = std::fread(text, 1, sizeof(text), file);
    (void)std::fclose(file);
    return { text, count };
}

std::string Expected(time_t now)
{
    char text[32] = "";
    (void)ctime_r(&now, text);
    return std::string(text).substr(4, 15) + ": ";
}

TEST(LogTimestamp, WritesMonthDayAndTimeOfDay)
{
    std::string text;
    std::string before;
    std::string after;
    do { // again when a second passed in between
        before = Expected(time(nullptr));
        text = Written();
        after = Expected(time(nullptr));
    } while (before != after);
    EXPECT_EQ(text, before);
    EXPECT_EQ(text.size(), 17U);
}

TEST(LogStamped, WritesThePrefixAndTheFormattedTextToStandardError)
{
    CapturedOutput output;
    LogStamped("Stream %d of %s ID:0x%08x\n", -7, "127.0.0.1", 0xABCU);
    EXPECT_EQ(output.StampedErr(), "<time> Stream -7 of 127.0.0.1 ID:0x00000abc\n");
    EXPECT_EQ(output.Out(), "");
}

TEST(LogStamped, ATextOfAnyLengthIsWrittenWhole)
{
    const std::string text(5000, 'x');
    CapturedOutput output;
    LogStamped("%s\n", text.c_str());
    EXPECT_EQ(output.StampedErr(), "<time> " + text + "\n");
}

TEST(LogStamped, TheLinesOfSeveralThreadsDoNotMix)
{
    constexpr size_t THREADS = 4;
    constexpr size_t LINES = 5000;
    CapturedOutput output;
    std::barrier start(THREADS);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < THREADS; ++i)
        threads.emplace_back([&start] {
            start.arrive_and_wait();
            for (size_t line = 0; line < LINES; ++line)
                LogStamped("a line\n");
        });
    for (std::thread& thread : threads)
        thread.join();
    const std::string text = output.StampedErr();
    const std::string whole = "<time> a line\n";
    EXPECT_EQ(text.size(), THREADS * LINES * whole.size());
    EXPECT_EQ(CountOf(text, whole), THREADS * LINES);
}

} // namespace
