#pragma once

#include <cstdint>
#include <string_view>

namespace demo {

// A small bitmap font for pictures and plots: 5 x 8 points a letter, the last row below the base line.
constexpr int GLYPH_WIDTH = 5;
constexpr int GLYPH_HEIGHT = 8;
constexpr int GLYPH_ADVANCE = 6; // with the gap to the next one

// Whether the letter has a point at that column and row, both from the top left and inside the glyph. Letters that the
// font does not have are a frame.
bool GlyphPoint(char letter, int column, int row);

// Points from the first column to the end of the last letter.
int TextWidth(std::string_view text, int scale);

} // namespace demo
