#include "demo/test_picture.h"

#include <array>
#include <cmath>
#include <cstdio>
#include <numbers>
#include <string_view>

#include "demo/font.h"

namespace demo {

namespace {

constexpr Color WHITE { 255, 255, 255 };
constexpr Color BLACK { 0, 0, 0 };
constexpr std::array<Color, 8> BARS { { { 219, 219, 170 }, { 219, 182, 0 }, { 0, 182, 170 }, { 0, 146, 0 },
    { 182, 0, 170 }, { 182, 0, 0 }, { 0, 36, 170 }, { 36, 36, 85 } } };
constexpr int BARS_HEIGHT = 54;
constexpr int BALL_RADIUS = 11;
constexpr std::array<Color, 2> HOLE { { { 73, 73, 85 }, { 146, 146, 170 } } };

struct BlockPlace {
    int left, top;
};

BlockPlace PlaceOf(int block)
{
    return { block % BLOCKS_PER_ROW * BLOCK_WIDTH, block / BLOCKS_PER_ROW * BLOCK_HEIGHT };
}

void DrawBars(Canvas& picture)
{
    for (int bar = 0; bar < static_cast<int>(BARS.size()); ++bar)
        picture.Rectangle(bar * 20, 0, 20, BARS_HEIGHT, BARS[static_cast<size_t>(bar)]);
}

// Below the bars: a ramp from black to white that slides by a point a picture.
void DrawRamp(Canvas& picture, uint32_t number)
{
    for (int x = 0; x < PICTURE_WIDTH; ++x) {
        const auto level = static_cast<uint8_t>((static_cast<uint32_t>(x) + number) % 160 * 255 / 159);
        picture.Rectangle(x, BARS_HEIGHT, 1, 8, { level, level, level });
    }
}

// To and fro across the bars, bouncing.
void DrawBall(Canvas& picture, uint32_t number)
{
    constexpr int SPAN = PICTURE_WIDTH - 2 * BALL_RADIUS;
    const int way = static_cast<int>(number * 2 % (2 * SPAN));
    const int centerX = BALL_RADIUS + (way < SPAN ? way : 2 * SPAN - way);
    const double jump = std::fabs(std::sin(number * std::numbers::pi / 25));
    const int centerY = BARS_HEIGHT - BALL_RADIUS - static_cast<int>(jump * (BARS_HEIGHT - 2 * BALL_RADIUS));
    for (int y = -BALL_RADIUS; y <= BALL_RADIUS; ++y)
        for (int x = -BALL_RADIUS; x <= BALL_RADIUS; ++x)
            if (const int square = x * x + y * y; square <= BALL_RADIUS * BALL_RADIUS)
                picture.Point(centerX + x, centerY + y, square > 81 ? BLACK : Color { 255, 255, 0 });
}

void DrawClock(Canvas& picture, uint32_t number)
{
    const uint32_t seconds = number / PICTURES_PER_SECOND;
    const uint32_t hundredths = number % PICTURES_PER_SECOND * (100 / PICTURES_PER_SECOND);
    std::array<char, 32> text;
    (void)std::snprintf(
        text.data(), text.size(), "%02u:%02u.%02u", seconds / 60 % 100, seconds % 60, hundredths);
    picture.Text(8, 69, text.data(), 2, WHITE);
    (void)std::snprintf(text.data(), text.size(), "#%05u", number % 100000);
    picture.Text(118, 74, text.data(), 1, { 255, 219, 85 });
}

} // namespace

uint8_t PackColor(Color color)
{
    return static_cast<uint8_t>((color.red & 0xE0) | (color.green & 0xE0) >> 3 | color.blue >> 6);
}

Color UnpackColor(uint8_t packed)
{
    return { static_cast<uint8_t>((packed >> 5) * 255 / 7), static_cast<uint8_t>((packed >> 2 & 7) * 255 / 7),
        static_cast<uint8_t>((packed & 3) * 255 / 3) };
}

Canvas DrawTestPicture(uint32_t number)
{
    Canvas picture(PICTURE_WIDTH, PICTURE_HEIGHT, { 0, 0, 85 });
    DrawBars(picture);
    DrawRamp(picture, number);
    DrawBall(picture, number);
    DrawClock(picture, number);
    return picture;
}

std::vector<uint8_t> PackBlock(const Canvas& picture, int block)
{
    const BlockPlace place = PlaceOf(block);
    std::vector<uint8_t> packed;
    packed.reserve(BLOCK_BYTES);
    for (int y = 0; y < BLOCK_HEIGHT; ++y)
        for (int x = 0; x < BLOCK_WIDTH; ++x)
            packed.push_back(PackColor(picture.At(place.left + x, place.top + y)));
    return packed;
}

void UnpackBlock(Canvas& picture, int block, std::span<const uint8_t> packed)
{
    const BlockPlace place = PlaceOf(block);
    for (int y = 0; y < BLOCK_HEIGHT; ++y)
        for (int x = 0; x < BLOCK_WIDTH; ++x)
            picture.Point(place.left + x, place.top + y,
                UnpackColor(packed[static_cast<size_t>(y) * BLOCK_WIDTH + static_cast<size_t>(x)]));
}

void DrawHole(Canvas& picture, int block)
{
    const BlockPlace place = PlaceOf(block);
    for (int y = place.top; y < place.top + BLOCK_HEIGHT; ++y)
        for (int x = place.left; x < place.left + BLOCK_WIDTH; ++x)
            picture.Point(x, y, HOLE[static_cast<size_t>((x + y) / 3 % 2)]);
}

} // namespace demo
