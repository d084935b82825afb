#include "demo/canvas.h"

#include <limits>
#include <set>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "demo/font.h"

namespace {

constexpr demo::Color GROUND { 1, 1, 1 };
constexpr demo::Color INK { 9, 8, 7 };

int Inked(const demo::Canvas& canvas)
{
    int points = 0;
    for (int y = 0; y < canvas.Height(); ++y)
        for (int x = 0; x < canvas.Width(); ++x)
            points += canvas.At(x, y) == INK ? 1 : 0;
    return points;
}

} // namespace

TEST(Canvas, WhatLiesOutsideIsNotDrawn)
{
    demo::Canvas canvas(10, 10, GROUND);
    for (const int place : { -1000, -1, 10, 1000 }) {
        canvas.Point(place, 5, INK);
        canvas.Point(5, place, INK);
    }
    for (const int place : { -1000, -40, 10, 1000 })
        canvas.Text(place, place, "Qg", 3, INK);
    EXPECT_EQ(Inked(canvas), 0);
    canvas.Rectangle(-5, -5, 7, 8, INK);
    EXPECT_EQ(Inked(canvas), 2 * 3);
    canvas.Rectangle(8, 9, 100, 100, INK);
    EXPECT_EQ(Inked(canvas), 2 * 3 + 2);
}

TEST(Canvas, APictureIsCopiedEnlargedAndCutAtTheEdge)
{
    demo::Canvas canvas(10, 10, GROUND);
    canvas.Copy(7, 8, demo::Canvas(2, 2, INK), 2);
    EXPECT_EQ(Inked(canvas), 3 * 2);
}

TEST(Canvas, ColorsMixFromOneToTheOther)
{
    EXPECT_EQ(demo::Mix({ 10, 20, 30 }, { 200, 100, 0 }, 0), (demo::Color { 10, 20, 30 }));
    EXPECT_EQ(demo::Mix({ 10, 20, 30 }, { 200, 100, 0 }, 255), (demo::Color { 200, 100, 0 }));
}

TEST(Font, EveryLetterOfTheLabelsHasAFormOfItsOwn)
{
    const std::string_view letters
        = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789%.,:;-+/()#=<>!?";
    const auto points = [](char letter) {
        std::vector<bool> form;
        for (int row = 0; row < demo::GLYPH_HEIGHT; ++row)
            for (int column = 0; column < demo::GLYPH_WIDTH; ++column)
                form.push_back(demo::GlyphPoint(letter, column, row));
        return form;
    };
    std::set<std::vector<bool>> forms { points('\x01') }; // the frame of those that there are none of
    for (const char letter : letters)
        EXPECT_TRUE(forms.insert(points(letter)).second) << letter;
}

TEST(Font, NothingIsOutsideAGlyph)
{
    for (int letter = std::numeric_limits<char>::min(); letter <= std::numeric_limits<char>::max(); ++letter)
        for (const int off : { -1000, -1, 8, 1000 }) {
            EXPECT_FALSE(demo::GlyphPoint(static_cast<char>(letter), off, 0));
            EXPECT_FALSE(demo::GlyphPoint(static_cast<char>(letter), 0, off));
        }
}

TEST(Font, ATextIsAsWideAsItsLettersWithoutTheLastGap)
{
    EXPECT_EQ(demo::TextWidth("", 2), 0);
    EXPECT_EQ(demo::TextWidth("a", 1), 5);
    EXPECT_EQ(demo::TextWidth("abc", 2), 34);
}
