#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace demo {

struct Color {
    uint8_t red, green, blue;
    bool operator==(const Color&) const = default;
};

// `part` 0 gives `from`, 255 gives `to`.
Color Mix(Color from, Color to, uint8_t part);

// A picture in memory to draw on. Whatever lies outside is not drawn; coordinates may be anything.
class Canvas {
public:
    Canvas(int width, int height, Color ground);

    int Width() const { return m_nWidth; }
    int Height() const { return m_nHeight; }
    // Three bytes a point, red first, rows from the top.
    std::span<const uint8_t> Bytes() const { return m_bytes; }
    Color At(int x, int y) const; // inside only

    void Point(int x, int y, Color color);
    void Rectangle(int x, int y, int width, int height, Color color);
    void Frame(int x, int y, int width, int height, Color color); // one point thick, inside the rectangle
    void Text(int x, int y, std::string_view text, int scale, Color color); // from its top left
    // Copies `picture`, each of its points `scale` times as wide and as high.
    void Copy(int x, int y, const Canvas& picture, int scale);

private:
    int m_nWidth;
    int m_nHeight;
    std::vector<uint8_t> m_bytes;
};

} // namespace demo
