#include "demo/screen.h"

#include <algorithm>
#include <cstdlib>

#include "demo/format.h"

namespace demo {

namespace {

bool IsContinuation(char byte)
{
    return (static_cast<uint8_t>(byte) & 0xC0) == 0x80;
}

// The nearest of the 6 x 6 x 6 colours, or of the 24 greys where red, green and blue hardly differ.
int PaletteIndex(Color color)
{
    const int low = std::min({ color.red, color.green, color.blue });
    const int high = std::max({ color.red, color.green, color.blue });
    if (high - low < 12 && high >= 8 && low <= 238)
        return 232 + std::clamp((color.green - 3) / 10, 0, 23);
    const auto step = [](uint8_t level) { return level < 48 ? 0 : level < 115 ? 1 : (level - 35) / 40; };
    return 16 + 36 * step(color.red) + 6 * step(color.green) + step(color.blue);
}

std::string ColorSequence(const std::optional<Color>& color, int base, Colors colors)
{
    if (!color)
        return {};
    if (colors == Colors::True)
        return Format(";%d;2;%d;%d;%d", base, color->red, color->green, color->blue);
    return Format(";%d;5;%d", base, PaletteIndex(*color));
}

std::string Sequence(const Look& look, Colors colors)
{
    constexpr int FOREGROUND = 38, BACKGROUND = 48;
    return "\x1b[0" + std::string(look.isBold ? ";1" : "") + ColorSequence(look.ink, FOREGROUND, colors)
        + ColorSequence(look.ground, BACKGROUND, colors) + "m";
}

} // namespace

int LetterCount(std::string_view text)
{
    return static_cast<int>(
        text.size() - static_cast<size_t>(std::count_if(text.begin(), text.end(), IsContinuation)));
}

Screen::Screen(int columns, int rows)
    : m_nColumns(std::max(columns, 1)),
      m_nRows(std::max(rows, 1)),
      m_cells(static_cast<size_t>(m_nColumns) * static_cast<size_t>(m_nRows))
{
}

Screen::Cell* Screen::At(int column, int row)
{
    if (column < 0 || column >= m_nColumns || row < 0 || row >= m_nRows)
        return nullptr;
    return &m_cells[static_cast<size_t>(row) * static_cast<size_t>(m_nColumns) + static_cast<size_t>(column)];
}

void Screen::Put(int column, int row, std::string_view text, const Look& look)
{
    while (!text.empty()) {
        size_t bytes = 1;
        while (bytes < text.size() && IsContinuation(text[bytes]))
            ++bytes;
        if (Cell* const cell = At(column++, row)) {
            cell->letter.assign(text.substr(0, bytes));
            cell->look = look;
        }
        text.remove_prefix(bytes);
    }
}

void Screen::PutRight(int column, int row, std::string_view text, const Look& look)
{
    Put(column - LetterCount(text), row, text, look);
}

void Screen::Shade(int column, int row, Color ground)
{
    if (Cell* const cell = At(column, row))
        cell->look.ground = ground;
}

std::string Screen::Line(int row, Colors colors) const
{
    const auto first = m_cells.begin() + static_cast<ptrdiff_t>(row) * m_nColumns;
    auto last = first + m_nColumns;
    while (last != first && std::prev(last)->letter == " "
        && (colors == Colors::None || !std::prev(last)->look.ground))
        --last;
    std::string line;
    Look look;
    for (auto cell = first; cell != last; ++cell) {
        if (colors != Colors::None && cell->look != look)
            line += Sequence(look = cell->look, colors);
        line += cell->letter;
    }
    return look == Look {} ? line : line + "\x1b[0m";
}

} // namespace demo
