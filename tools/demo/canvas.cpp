#include "demo/canvas.h"

#include <algorithm>

#include "demo/font.h"

namespace demo {

namespace {

uint8_t MixByte(uint8_t from, uint8_t to, uint8_t part)
{
    return static_cast<uint8_t>((from * (255 - part) + to * part) / 255);
}

} // namespace

Color Mix(Color from, Color to, uint8_t part)
{
    return { MixByte(from.red, to.red, part), MixByte(from.green, to.green, part),
        MixByte(from.blue, to.blue, part) };
}

Canvas::Canvas(int width, int height, Color ground)
    : m_nWidth(std::max(width, 0)),
      m_nHeight(std::max(height, 0)),
      m_bytes(static_cast<size_t>(m_nWidth) * static_cast<size_t>(m_nHeight) * 3)
{
    Rectangle(0, 0, m_nWidth, m_nHeight, ground);
}

Color Canvas::At(int x, int y) const
{
    const size_t place
        = (static_cast<size_t>(y) * static_cast<size_t>(m_nWidth) + static_cast<size_t>(x)) * 3;
    return { m_bytes[place], m_bytes[place + 1], m_bytes[place + 2] };
}

void Canvas::Point(int x, int y, Color color)
{
    if (x < 0 || x >= m_nWidth || y < 0 || y >= m_nHeight)
        return;
    const size_t place
        = (static_cast<size_t>(y) * static_cast<size_t>(m_nWidth) + static_cast<size_t>(x)) * 3;
    m_bytes[place] = color.red;
    m_bytes[place + 1] = color.green;
    m_bytes[place + 2] = color.blue;
}

void Canvas::Rectangle(int x, int y, int width, int height, Color color)
{
    for (int row = std::max(y, 0); row < std::min(y + height, m_nHeight); ++row)
        for (int column = std::max(x, 0); column < std::min(x + width, m_nWidth); ++column)
            Point(column, row, color);
}

void Canvas::Frame(int x, int y, int width, int height, Color color)
{
    Rectangle(x, y, width, 1, color);
    Rectangle(x, y + height - 1, width, 1, color);
    Rectangle(x, y, 1, height, color);
    Rectangle(x + width - 1, y, 1, height, color);
}

void Canvas::Text(int x, int y, std::string_view text, int scale, Color color)
{
    for (const char letter : text) {
        for (int row = 0; row < GLYPH_HEIGHT; ++row)
            for (int column = 0; column < GLYPH_WIDTH; ++column)
                if (GlyphPoint(letter, column, row))
                    Rectangle(x + column * scale, y + row * scale, scale, scale, color);
        x += GLYPH_ADVANCE * scale;
    }
}

void Canvas::Copy(int x, int y, const Canvas& picture, int scale)
{
    for (int row = 0; row < picture.Height(); ++row)
        for (int column = 0; column < picture.Width(); ++column)
            Rectangle(x + column * scale, y + row * scale, scale, scale, picture.At(column, row));
}

} // namespace demo
