#include "arqrx/program/lateness.h"

#include <gtest/gtest.h>

namespace {

using arqrx::Lateness;

TEST(Lateness, OfNothingIsUnknown)
{
    EXPECT_EQ(Lateness().Percentile(0.5), -1);
}

TEST(Lateness, PercentilesAreOfWhatCame)
{
    Lateness lateness;
    for (int i = 101; i > 0; --i)
        lateness.Add(i);
    EXPECT_EQ(lateness.Percentile(0), 1);
    EXPECT_EQ(lateness.Percentile(0.5), 51);
    EXPECT_EQ(lateness.Percentile(0.99), 100);
    EXPECT_EQ(lateness.Percentile(1), 101);
}

TEST(Lateness, OnlyTheLast4096Count)
{
    Lateness lateness;
    lateness.Add(1'000'000);
    for (int i = 0; i < 4095; ++i)
        lateness.Add(1);
    EXPECT_EQ(lateness.Percentile(1), 1'000'000);
    lateness.Add(2);
    EXPECT_EQ(lateness.Percentile(1), 2);
    for (int i = 0; i < 4096; ++i)
        lateness.Add(1);
    EXPECT_EQ(lateness.Percentile(1), 1);
    for (int i = 0; i < 4096; ++i)
        lateness.Add(3);
    EXPECT_EQ(lateness.Percentile(0), 3);
}

} // namespace
