#include "arqctl/top/grid.h"

#include <algorithm>

namespace arqctl::top {

namespace {

constexpr char32_t UNKNOWN_LETTER = U'?';

// Latin, Greek and Cyrillic, and the lines and blocks that the view draws with.
bool IsOneCell(char32_t letter)
{
    const bool isAscii = letter >= 0x20 && letter < 0x7F;
    const bool isLetter
        = letter > 0xA0 && letter < 0x483 && letter != 0xAD && (letter < 0x300 || letter >= 0x370);
    const bool isDrawing = letter >= 0x2500 && letter < 0x25A0;
    return isAscii || isLetter || isDrawing;
}

// How many bytes follow the first one of a sequence; negative when none begins like this (RFC 3629).
int FollowersOf(unsigned char first)
{
    if (first < 0x80)
        return 0;
    if (first >= 0xC2 && first < 0xE0)
        return 1;
    if (first >= 0xE0 && first < 0xF0)
        return 2;
    return first >= 0xF0 && first < 0xF5 ? 3 : -1;
}

// Takes one letter off the front.
char32_t TakeLetter(std::string_view& text)
{
    const auto first = static_cast<unsigned char>(text.front());
    const int followers = FollowersOf(first);
    text.remove_prefix(1);
    if (followers <= 0)
        return followers == 0 ? first : UNKNOWN_LETTER;
    char32_t letter = first & (0x3FU >> followers);
    for (int i = 0; i < followers; ++i) {
        if (text.empty() || (static_cast<unsigned char>(text.front()) & 0xC0U) != 0x80)
            return UNKNOWN_LETTER;
        letter = letter << 6 | (static_cast<unsigned char>(text.front()) & 0x3FU);
        text.remove_prefix(1);
    }
    return letter;
}

} // namespace

Grid::Grid(int columns, int rows)
    : m_nColumns(std::max(columns, 0)),
      m_nRows(std::max(rows, 0)),
      m_cells(static_cast<size_t>(m_nColumns) * static_cast<size_t>(m_nRows))
{
}

void Grid::Put(int column, int row, std::string_view text, Tone tone)
{
    for (const char32_t letter : LettersOf(text))
        PutLetter(column++, row, letter, tone);
}

void Grid::PutRight(int column, int row, std::string_view text, Tone tone)
{
    Put(column - static_cast<int>(LettersOf(text).size()), row, text, tone);
}

void Grid::PutLetter(int column, int row, char32_t letter, Tone tone)
{
    if (column < 0 || column >= m_nColumns || row < 0 || row >= m_nRows)
        return;
    m_cells[Index(column, row)] = { letter, tone };
}

const Cell& Grid::At(int column, int row) const
{
    return m_cells[Index(column, row)];
}

std::string Grid::Line(int row) const
{
    std::string line;
    for (int column = 0; column < m_nColumns; ++column)
        line += Utf8Of(At(column, row).letter);
    line.erase(line.find_last_not_of(' ') + 1);
    return line;
}

std::string Grid::Tones(int row) const
{
    constexpr std::string_view TONE_LETTERS = " fhsgwrba";
    std::string line;
    for (int column = 0; column < m_nColumns; ++column)
        line += TONE_LETTERS[static_cast<size_t>(At(column, row).tone)];
    line.erase(line.find_last_not_of(' ') + 1);
    return line;
}

std::u32string LettersOf(std::string_view text)
{
    std::u32string letters;
    while (!text.empty()) {
        const char32_t letter = TakeLetter(text);
        letters += IsOneCell(letter) ? letter : UNKNOWN_LETTER;
    }
    return letters;
}

std::string Utf8Of(char32_t letter)
{
    if (letter < 0x80)
        return { static_cast<char>(letter) };
    const auto tail = [letter](int shift) { return static_cast<char>(0x80 | (letter >> shift & 0x3F)); };
    if (letter < 0x800)
        return { static_cast<char>(0xC0 | letter >> 6), tail(0) };
    return { static_cast<char>(0xE0 | letter >> 12), tail(6), tail(0) };
}

namespace {

std::string Utf8OfAll(std::u32string_view letters)
{
    std::string text;
    for (const char32_t letter : letters)
        text += Utf8Of(letter);
    return text;
}

constexpr std::string_view CUT = "..";

enum class Side { Front, Back };

// The text in so many columns; what has no room is cut off at one side.
std::string CutAt(Side side, const std::string& text, int columns)
{
    const std::u32string letters = LettersOf(text);
    const auto room = static_cast<size_t>(std::max(columns, 0));
    if (letters.size() <= room)
        return Utf8OfAll(letters);
    if (room <= CUT.size())
        return std::string(CUT.substr(0, room));
    const std::u32string_view all = letters;
    const size_t kept = room - CUT.size();
    return side == Side::Front ? std::string(CUT) + Utf8OfAll(all.substr(all.size() - kept))
                               : Utf8OfAll(all.substr(0, kept)) + std::string(CUT);
}

} // namespace

std::string CutFront(const std::string& text, int columns)
{
    return CutAt(Side::Front, text, columns);
}

std::string CutBack(const std::string& text, int columns)
{
    return CutAt(Side::Back, text, columns);
}

std::vector<std::string> WrapText(const std::string& text, int columns)
{
    const auto room = static_cast<size_t>(std::max(columns, 1));
    std::vector<std::string> lines;
    const std::u32string letters = LettersOf(text);
    std::u32string_view rest = letters;
    while (rest.size() > room) {
        const size_t blank = rest.rfind(U' ', room);
        const bool hasBlank = blank != std::u32string_view::npos && blank > 0;
        lines.push_back(Utf8OfAll(rest.substr(0, hasBlank ? blank : room)));
        rest.remove_prefix(hasBlank ? blank + 1 : room);
    }
    lines.push_back(Utf8OfAll(rest));
    return lines;
}

} // namespace arqctl::top
