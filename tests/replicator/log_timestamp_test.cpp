#include "replicator/log_timestamp.h"

#include <cstdio>
#include <ctime>
#include <string>

#include <gtest/gtest.h>

namespace {

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

} // namespace
