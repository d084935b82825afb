#include "demo/screen.h"

#include <gtest/gtest.h>

#include "demo/format.h"

TEST(Screen, WhatLiesOutsideIsNotDrawn)
{
    demo::Screen screen(5, 2);
    screen.Put(3, 0, "abcdef");
    screen.Put(-2, 1, "abcdef");
    for (const int place : { -1, 2, 100 })
        screen.Put(0, place, "x");
    EXPECT_EQ(screen.Line(0, demo::Colors::None), "   ab");
    EXPECT_EQ(screen.Line(1, demo::Colors::None), "cdef");
}

TEST(Screen, ALetterOfSeveralBytesTakesOneCell)
{
    demo::Screen screen(6, 1);
    screen.Put(0, 0, "█→a");
    screen.PutRight(6, 0, "▁");
    EXPECT_EQ(screen.Line(0, demo::Colors::None), "█→a  ▁");
    EXPECT_EQ(demo::LetterCount("█→a"), 3);
}

TEST(Screen, ColorsAreSetWhereTheyChangeAndClosedAtTheEnd)
{
    demo::Screen screen(6, 1);
    screen.Put(0, 0, "a");
    screen.Put(1, 0, "bc", { .ink = demo::Color { 255, 0, 0 }, .ground = std::nullopt, .isBold = true });
    EXPECT_EQ(screen.Line(0, demo::Colors::Palette), "a\x1b[0;1;38;5;196mbc\x1b[0m");
    EXPECT_EQ(screen.Line(0, demo::Colors::True), "a\x1b[0;1;38;2;255;0;0mbc\x1b[0m");
    EXPECT_EQ(screen.Line(0, demo::Colors::None), "abc");
}

TEST(Screen, AShadedBlankAtTheEndIsKeptWithColors)
{
    demo::Screen screen(3, 1);
    screen.Shade(1, 0, { 0, 0, 255 });
    EXPECT_EQ(screen.Line(0, demo::Colors::Palette), " \x1b[0;48;5;21m \x1b[0m");
    EXPECT_EQ(screen.Line(0, demo::Colors::None), "");
}

TEST(Format, ATextIsWrappedAtBlanks)
{
    EXPECT_EQ(demo::Wrap("one two three", 7), (std::vector<std::string> { "one two", "three" }));
    EXPECT_EQ(demo::Wrap("abcdefghij k", 4), (std::vector<std::string> { "abcd", "efgh", "ij k" }));
    EXPECT_EQ(demo::Wrap("", 4), (std::vector<std::string> { "" }));
}
