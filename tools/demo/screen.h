#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "demo/canvas.h"

namespace demo {

enum class Colors : uint8_t { None, Palette, True }; // Palette: the 256 of xterm

struct Look {
    std::optional<Color> ink; // nothing: the terminal's own
    std::optional<Color> ground;
    bool isBold = false;
    bool operator==(const Look&) const = default;
};

// A terminal's screen in memory: one letter a cell, drawn to from anywhere; what lies outside is not drawn. Lines come out
// as text with escape sequences (ECMA-48), without any when there are no colours. Threads: one.
class Screen {
public:
    Screen(int columns, int rows);

    int Columns() const { return m_nColumns; }
    int Rows() const { return m_nRows; }

    // UTF-8, each letter one cell wide.
    void Put(int column, int row, std::string_view text, const Look& look = {});
    // So that it ends before `column`.
    void PutRight(int column, int row, std::string_view text, const Look& look = {});
    // Changes the ground of cells, not their letters.
    void Shade(int column, int row, Color ground);

    // With escapes, always closed at the end of the row; blanks at the end of a row are left out.
    std::string Line(int row, Colors colors) const;

private:
    struct Cell {
        std::string letter = " ";
        Look look;
    };
    Cell* At(int column, int row);

    int m_nColumns;
    int m_nRows;
    std::vector<Cell> m_cells;
};

// How many letters a text in UTF-8 has.
int LetterCount(std::string_view text);

} // namespace demo
