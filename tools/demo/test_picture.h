#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "demo/canvas.h"

namespace demo {

// The pictures of the built-in stream: bars, a moving ball, a clock and a number. Small and not compressed, so that each
// datagram that is lost is a hole of its own size in one picture and nowhere else.
constexpr int PICTURE_WIDTH = 160;
constexpr int PICTURE_HEIGHT = 90;
constexpr int PICTURES_PER_SECOND = 25;

// A picture is cut into blocks, numbered row by row.
constexpr int BLOCK_WIDTH = 20;
constexpr int BLOCK_HEIGHT = 9;
constexpr int BLOCKS_PER_ROW = PICTURE_WIDTH / BLOCK_WIDTH;
constexpr int BLOCKS = BLOCKS_PER_ROW * (PICTURE_HEIGHT / BLOCK_HEIGHT);
constexpr int BLOCK_BYTES = BLOCK_WIDTH * BLOCK_HEIGHT;

// A point in one byte: three bits red, three green, two blue.
uint8_t PackColor(Color color);
Color UnpackColor(uint8_t packed);

Canvas DrawTestPicture(uint32_t number);

// The points of a block, row by row.
std::vector<uint8_t> PackBlock(const Canvas& picture, int block);
// Needs BLOCK_BYTES.
void UnpackBlock(Canvas& picture, int block, std::span<const uint8_t> packed);

// What stands where nothing came: a pattern that no picture has.
void DrawHole(Canvas& picture, int block);

} // namespace demo
