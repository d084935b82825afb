#include "demo/view_parts.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <string_view>

#include "demo/format.h"

namespace demo {

namespace {

constexpr Color RECOVERED_COLOR { 60, 190, 100 };
constexpr Color LOST_COLOR { 230, 60, 50 };
constexpr Color WAITING_COLOR { 240, 190, 60 };
constexpr Color FAINT_COLOR { 140, 144, 152 };
constexpr std::array<Color, 3> GROUNDS { { { 0, 0, 0 }, { 50, 42, 16 }, { 70, 20, 18 } } };
constexpr int LABEL_COLUMNS = 5; // "100%" and the axis

// What became of a packet, from the bottom of a bar to its top.
enum class Kind : uint8_t { Recovered, Lost, Waiting };
constexpr std::array<Color, 3> KIND_COLORS { RECOVERED_COLOR, LOST_COLOR, WAITING_COLOR };
constexpr std::array<const char*, 3> KIND_NAMES { "recovered", "lost", "may still come" };

// Without colours the letters tell the kinds apart.
constexpr std::array<std::string_view, 3> ASCII_LETTERS { "+", "#", "?" };
constexpr std::array<std::string_view, 3> PLAIN_LETTERS { "░", "█", "▒" };
constexpr std::string_view BLOCK = "█";

std::string_view Letters(Kind kind, const ViewStyle& style)
{
    if (!style.isUtf8)
        return ASCII_LETTERS[static_cast<size_t>(kind)];
    return style.colors == Colors::None ? PLAIN_LETTERS[static_cast<size_t>(kind)] : BLOCK;
}

Look KindLook(Kind kind)
{
    return { .ink = KIND_COLORS[static_cast<size_t>(kind)], .ground = std::nullopt, .isBold = false };
}

// Eighths of a row above the axis. The scale is that of the square root: single losses show beside a dead line.
int LevelOf(double part, int rows)
{
    return static_cast<int>(std::lround(std::sqrt(part) * rows * 8));
}

// One bar, upwards. Levels are eighths of a row.
class Bar {
public:
    Bar(const Stretch& stretch, Side side, int rows)
    {
        const Losses& losses = stretch.sides[Index(side)];
        const auto level = [&](uint32_t packets) {
            const double part
                = stretch.sent == 0 ? 0 : std::min(1.0, static_cast<double>(packets) / stretch.sent);
            return LevelOf(part, rows);
        };
        m_tops = { level(losses.recovered), level(losses.recovered + losses.lost), level(losses.missing) };
    }

    int Top() const { return m_tops.back(); }
    Kind At(int level) const
    {
        return level < m_tops[0] ? Kind::Recovered : level < m_tops[1] ? Kind::Lost : Kind::Waiting;
    }

private:
    std::array<int, 3> m_tops;
};

void DrawBar(Screen& screen, int column, int bottom, int rows, const Bar& bar, const ViewStyle& style)
{
    constexpr std::array<std::string_view, 8> EIGHTHS { " ", "▁", "▂", "▃", "▄", "▅", "▆", "▇" };
    for (int row = 0; row < rows; ++row) {
        const int full = std::clamp(bar.Top() - row * 8, 0, 8);
        if (full == 0)
            return;
        const Kind kind = bar.At(row * 8 + (full - 1) / 2);
        const bool isPart = full < 8 && style.isUtf8 && style.colors != Colors::None;
        screen.Put(column, bottom - row, isPart ? EIGHTHS[static_cast<size_t>(full)] : Letters(kind, style),
            KindLook(kind));
    }
}

void DrawAxis(Screen& screen, const PlotArea& area, const ViewState& state, const ViewStyle& style)
{
    const int columns = area.columns - LABEL_COLUMNS, left = area.left + LABEL_COLUMNS,
              row = area.top + area.rows;
    const auto now = static_cast<int>(state.timeUs * columns / std::max<int64_t>(1, state.lengthUs));
    for (int column = 0; column < columns; ++column)
        screen.Put(left + column, row,
            column <= now ? (style.isUtf8 ? "━" : "=") : (style.isUtf8 ? "─" : "-"),
            column <= now ? Look {} : FaintLook());
    screen.PutRight(left, row, "0 s ", FaintLook());
}

// Each phase's name below its stretch of the axis; a short one stands where there is room beside it.
void DrawPhases(Screen& screen, const PlotArea& area, const ViewState& state)
{
    const int columns = area.columns - LABEL_COLUMNS, left = area.left + LABEL_COLUMNS,
              row = area.top + area.rows + 1;
    const int right = area.left + area.columns;
    int free = left;
    for (const Phase& phase : *state.phases) {
        const int start
            = left + static_cast<int>(phase.startUs * columns / std::max<int64_t>(1, state.lengthUs));
        const std::string name = phase.level == 2 ? "burst" : phase.name;
        const int from = std::max(start, free);
        if (from + LetterCount(name) > right)
            continue;
        screen.Put(from, row, name, PhaseLook(phase.level));
        free = from + LetterCount(name) + 1;
    }
}

void DrawScale(Screen& screen, const PlotArea& area)
{
    const int end = area.left + LABEL_COLUMNS - 1;
    int free = area.top + area.rows; // rows above this one have no label yet
    for (const int percent : { 1, 5, 25, 100 }) {
        const int row = area.top + area.rows - std::max(1, (LevelOf(percent / 100.0, area.rows) + 4) / 8);
        if (row < free)
            screen.PutRight(end, row, Format("%d%%", percent), FaintLook());
        free = std::min(free, row);
    }
}

// The color of a picture's point at a place of a grid of `columns` x `lines`.
Color Sample(const Canvas& picture, int column, int line, int columns, int lines)
{
    return picture.At(column * picture.Width() / columns, line * picture.Height() / lines);
}

} // namespace

Look BoldLook()
{
    return { .ink = std::nullopt, .ground = std::nullopt, .isBold = true };
}
Look FaintLook()
{
    return { .ink = FAINT_COLOR, .ground = std::nullopt, .isBold = false };
}
Look PhaseLook(int level)
{
    return { .ink = level == 0 ? RECOVERED_COLOR
            : level == 1       ? WAITING_COLOR
                               : LOST_COLOR,
        .ground = std::nullopt,
        .isBold = level == 2 };
}
Look RecoveredLook(uint64_t packets)
{
    return packets > 0 ? Look { .ink = RECOVERED_COLOR, .ground = std::nullopt, .isBold = true } : Look {};
}
Look LostLook(uint64_t packets)
{
    return packets > 0 ? Look { .ink = LOST_COLOR, .ground = std::nullopt, .isBold = true } : Look {};
}

void DrawLossPlot(
    Screen& screen, const PlotArea& area, const ViewState& state, Side side, const ViewStyle& style)
{
    const int columns = area.columns - LABEL_COLUMNS, left = area.left + LABEL_COLUMNS;
    for (int column = 0; column < columns; ++column) {
        DrawBar(screen, left + column, area.top + area.rows - 1, area.rows,
            Bar(state.history->Column(column, columns), side, area.rows), style);
        const Phase& phase = PhaseAt(*state.phases, column * state.lengthUs / columns);
        for (int row = 0; row < area.rows && phase.level > 0; ++row)
            screen.Shade(left + column, area.top + row, GROUNDS[static_cast<size_t>(phase.level)]);
    }
    DrawScale(screen, area);
    DrawAxis(screen, area, state, style);
    DrawPhases(screen, area, state);
}

void DrawPicture(Screen& screen, int left, int top, int columns, int rows, const Canvas& picture)
{
    if (picture.Width() == 0 || picture.Height() == 0)
        return;
    const int width = std::min(columns, rows * 2 * picture.Width() / picture.Height());
    const int margin = (columns - width) / 2;
    for (int row = 0; row < rows; ++row)
        for (int column = 0; column < width; ++column)
            screen.Put(left + margin + column, top + row, "▀",
                { .ink = Sample(picture, column, 2 * row, width, 2 * rows),
                    .ground = Sample(picture, column, 2 * row + 1, width, 2 * rows),
                    .isBold = false });
}

void DrawLegend(Screen& screen, int row, const ViewStyle& style)
{
    int column = 1;
    const auto put = [&](std::string_view text, const Look& look) {
        screen.Put(column, row, text, look);
        column += LetterCount(text);
    };
    put("missing packets: ", FaintLook());
    for (const Kind kind : { Kind::Recovered, Kind::Lost, Kind::Waiting }) {
        put(Letters(kind, style), KindLook(kind));
        put(std::string(" ") + KIND_NAMES[static_cast<size_t>(kind)] + "  ", FaintLook());
    }
    screen.PutRight(screen.Columns() - 1, row, "Ctrl-C ends", FaintLook());
}

} // namespace demo
