#include "demo/plot.h"

#include <gtest/gtest.h>

#include "demo/gallery.h"

namespace {

constexpr int64_t PLOT_LENGTH_US = 30'000'000;
constexpr demo::Color GREEN { 38, 150, 84 };
constexpr demo::Color RED { 208, 52, 44 };

int Count(const demo::Canvas& canvas, demo::Color color, int fromRow, int toRow)
{
    int points = 0;
    for (int y = fromRow; y < toRow; ++y)
        for (int x = 0; x < canvas.Width(); ++x)
            points += canvas.At(x, y) == color ? 1 : 0;
    return points;
}

demo::ShownPicture Picture(uint64_t number, uint8_t level, int holes = 0)
{
    return { number, demo::Canvas(4, 4, { level, level, level }), holes };
}

} // namespace

TEST(Plot, WhatARecoveredIsGreenAboveAndWhatBLostIsRedBelow)
{
    const auto phases = demo::Phases(PLOT_LENGTH_US);
    demo::History history(PLOT_LENGTH_US);
    const demo::Canvas empty = demo::DrawPlot(history, phases, true);
    for (int64_t time = 8'000'000; time < 12'000'000; time += 100'000)
        history.At(time) = { .sent = 30, .sides = { { { 10, 10, 0 }, { 10, 0, 10 } } } };
    const demo::Canvas plot = demo::DrawPlot(history, phases, true);
    ASSERT_EQ(plot.Width(), demo::PLOT_WIDTH);
    ASSERT_EQ(plot.Height(), demo::PLOT_HEIGHT);
    const auto grown = [&](demo::Color color, int from, int to) {
        return Count(plot, color, from, to) - Count(empty, color, from, to);
    };
    EXPECT_GT(grown(GREEN, 124, 324), 5000);
    EXPECT_EQ(grown(RED, 124, 324), 0);
    EXPECT_GT(grown(RED, 392, 592), 5000);
    EXPECT_EQ(grown(GREEN, 392, 592), 0);
}

TEST(Plot, EveryLengthAndAnyLossStayInside)
{
    for (const int64_t seconds : { 5, 6, 60, 3600 }) {
        demo::History history(seconds * 1'000'000);
        for (int64_t time = 0; time < seconds * 1'000'000; time += 100'000)
            history.At(time)
                = { .sent = 1, .sides = { { { 9, 9, 9 }, { 5, 0, 5 } } } }; // more than there were
        (void)demo::DrawPlot(history, demo::Phases(seconds * 1'000'000), false);
    }
}

TEST(Gallery, OfEachPartTheMomentWithTheLargestDifferenceIsKept)
{
    demo::Gallery gallery(demo::Phases(10'000'000), 25);
    for (uint64_t number = 0; number < 250; ++number) {
        gallery.Take(demo::Side::A, Picture(number, 0));
        gallery.Take(demo::Side::B, Picture(number, number == 60 ? 200 : 0, number == 60 ? 3 : 0));
    }
    const auto moments = gallery.Moments();
    ASSERT_EQ(moments.size(), 8U);
    EXPECT_EQ(moments[0].number, 25U); // nothing differs in the clean part: its middle
    EXPECT_EQ(moments[1].number, 60U);
    EXPECT_EQ(moments[1].difference, 16U);
    EXPECT_EQ(moments[1].pictures[0].At(0, 0), (demo::Color { 0, 0, 0 }));
    EXPECT_EQ(moments[1].pictures[1].At(0, 0), (demo::Color { 200, 200, 200 }));
    EXPECT_EQ(gallery.Damaged(demo::Side::B), 1U);
    EXPECT_EQ(gallery.Shown(demo::Side::A), 250U);
}

TEST(Gallery, PicturesMeetTheirPartnersWhicheverSideIsFirst)
{
    demo::Gallery gallery(demo::Phases(10'000'000), 25);
    gallery.Take(demo::Side::B, Picture(10, 50));
    gallery.Take(demo::Side::B, Picture(11, 50));
    gallery.Take(demo::Side::A, Picture(11, 10)); // number 10 was never shown by A
    ASSERT_EQ(gallery.Moments().size(), 1U);
    EXPECT_EQ(gallery.Moments()[0].number, 11U);
    EXPECT_EQ(gallery.Moments()[0].pictures[0].At(0, 0), (demo::Color { 10, 10, 10 }));
    EXPECT_EQ(gallery.Latest(demo::Side::A)->At(0, 0), (demo::Color { 10, 10, 10 }));
}

TEST(Gallery, AStripHasRoomForEachMoment)
{
    const auto phases = demo::Phases(10'000'000);
    EXPECT_GT(demo::DrawStrip({}, demo::Side::A, phases, 25).Width(), 0);
    demo::Gallery gallery(phases, 25);
    for (uint64_t number = 0; number < 250; ++number)
        for (const demo::Side side : demo::SIDES)
            gallery.Take(side, { number, demo::Canvas(160, 90, { 1, 2, 3 }), 0 });
    const demo::Canvas strip = demo::DrawStrip(gallery.Moments(), demo::Side::B, phases, 25);
    EXPECT_EQ(strip.Width(), 1330);
    EXPECT_EQ(strip.Height(), 472);
    EXPECT_EQ(Count(strip, { 1, 2, 3 }, 0, strip.Height()), 8 * 320 * 180);
}
