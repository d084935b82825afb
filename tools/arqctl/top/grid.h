#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace arqctl::top {

// What a piece of text says, not how it looks: the terminal has colours for it, or only bold and reverse.
enum class Tone : uint8_t {
    Plain,
    Faint, // scales, lines, hints
    Head, // titles and the heads of columns
    Strong, // what is selected
    Good,
    Warn, // something is lost or withheld
    Hurt, // bars of what is lost
    Bad, // the input is gone, no answer
    Ask // a question that waits for a key
};

struct Cell {
    char32_t letter = U' ';
    Tone tone = Tone::Plain;
    bool operator==(const Cell&) const = default;
};

// A screen in memory, one letter a cell; what lies outside is not drawn. Threads: one thread's own.
class Grid {
public:
    Grid(int columns, int rows);

    int Columns() const { return m_nColumns; }
    int Rows() const { return m_nRows; }

    // UTF-8. A letter that may not be one cell wide, a control character and a broken sequence become "?".
    void Put(int column, int row, std::string_view text, Tone tone = Tone::Plain);
    // So that it ends before `column`.
    void PutRight(int column, int row, std::string_view text, Tone tone = Tone::Plain);
    void PutLetter(int column, int row, char32_t letter, Tone tone = Tone::Plain);

    const Cell& At(int column, int row) const;
    // UTF-8 without the blanks at its end.
    std::string Line(int row) const;
    // One letter a cell for its tone, blanks for Plain: "f" Faint, "h" Head, "s" Strong, "g" Good, "w" Warn, "r" Hurt, "b" Bad, "a" Ask.
    std::string Tones(int row) const;

private:
    // Of a cell inside.
    size_t Index(int column, int row) const
    {
        return static_cast<size_t>(row) * static_cast<size_t>(m_nColumns) + static_cast<size_t>(column);
    }

    int m_nColumns;
    int m_nRows;
    std::vector<Cell> m_cells;
};

// The letters of a text in UTF-8, each one cell wide.
std::u32string LettersOf(std::string_view text);
std::string Utf8Of(char32_t letter);

// At most `columns` cells of it: the end stays, which tells paths and hosts apart, and ".." stands in front.
std::string CutFront(const std::string& text, int columns);
// The beginning stays.
std::string CutBack(const std::string& text, int columns);
// Broken at blanks where that can be.
std::vector<std::string> WrapText(const std::string& text, int columns);

} // namespace arqctl::top
