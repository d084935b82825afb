#include <algorithm>
#include <array>
#include <functional>

#include "arqctl/top/amount_text.h"
#include "arqctl/top/view_parts.h"

namespace arqctl::top {

namespace {

constexpr int MARK_COLUMNS = 2; // in front of a name: which one is selected
constexpr int LEAST_NAME = 5, USUAL_NAME = 13, WIDE_NAME = 30;
constexpr int WIDE = 100; // from here on there is air between the columns
constexpr int LEAST_TREND = 12, LONGEST_TREND = 60;

struct ProxyColumn {
    const char* head;
    int columns;
    int rank; // the least stay longest
    bool isFigure; // of the last answer: nothing while there is none; stands to the right
    std::string (*text)(const ShownProxy& proxy);
    Tone (*tone)(const ShownProxy& proxy);
};

Tone PlainTone(const ShownProxy&)
{
    return Tone::Plain;
}

Tone WarnIf(double value)
{
    return value > 0 ? Tone::Warn : Tone::Plain;
}

const std::array<ProxyColumn, 7> PROXY_COLUMNS { {
    { "STATE", 10, 0, false, StateWord, [](const ShownProxy& proxy) { return ToneOf(StateOf(proxy)); } },
    { "INPUT", 11, 1, true,
        [](const ShownProxy& proxy) { return BitRateText(proxy.reading.statistics.receivedBitRate); },
        PlainTone },
    { "OUTPUT", 11, 3, true,
        [](const ShownProxy& proxy) { return BitRateText(proxy.reading.statistics.sentBitRate); },
        PlainTone },
    { "LOST", 7, 2, true, [](const ShownProxy& proxy) { return PerSecondText(proxy.reading.rates.lost); },
        [](const ShownProxy& proxy) { return WarnIf(proxy.reading.rates.lost); } },
    { "RESENT", 7, 5, true,
        [](const ShownProxy& proxy) { return PerSecondText(proxy.reading.rates.sentBeyond); }, PlainTone },
    { "WITHHELD", 8, 6, true,
        [](const ShownProxy& proxy) { return PerSecondText(proxy.reading.rates.withheld); },
        [](const ShownProxy& proxy) { return WarnIf(proxy.reading.rates.withheld); } },
    { "RCVRS", 5, 4, true,
        [](const ShownProxy& proxy) { return std::to_string(proxy.reading.statistics.receivers.size()); },
        PlainTone },
} };

struct TableLayout {
    int nameColumns = 0;
    int gap = 1;
    int trendColumns = 0; // 0: no plot in the lines
    std::vector<const ProxyColumn*> columns;
};

int WidthOf(const std::vector<const ProxyColumn*>& columns, int gap)
{
    int width = 0;
    for (const ProxyColumn* column : columns)
        width += gap + column->columns;
    return width;
}

int LongestName(const ViewState& state)
{
    int longest = LEAST_NAME;
    for (const ShownProxy& proxy : state.proxies)
        longest = std::max(longest, static_cast<int>(LettersOf(proxy.name).size()));
    return longest;
}

// Names get what the columns leave, and give way to none but the state.
TableLayout LayOutTable(const ViewState& state, int columns)
{
    TableLayout layout;
    layout.gap = columns >= WIDE ? 2 : 1;
    for (const ProxyColumn& column : PROXY_COLUMNS)
        layout.columns.push_back(&column);
    const int least = MARK_COLUMNS + LEAST_NAME;
    while (!layout.columns.empty() && least + WidthOf(layout.columns, layout.gap) > columns)
        layout.columns.erase(std::max_element(layout.columns.begin(), layout.columns.end(),
            [](const ProxyColumn* one, const ProxyColumn* other) { return one->rank < other->rank; }));
    const int room = columns - MARK_COLUMNS - WidthOf(layout.columns, layout.gap);
    const int cap = columns >= WIDE ? WIDE_NAME : layout.columns.size() > 1 ? USUAL_NAME : room;
    layout.nameColumns = std::min({ room, cap, LongestName(state) });
    const int left = room - layout.nameColumns - layout.gap;
    if (columns >= WIDE && left >= LEAST_TREND)
        layout.trendColumns = std::min(left - 1, LONGEST_TREND);
    return layout;
}

void DrawHead(Grid& grid, const Area& area, const TableLayout& layout)
{
    grid.Put(area.column + MARK_COLUMNS, area.row, CutBack("PROXY", layout.nameColumns), Tone::Head);
    int column = area.column + MARK_COLUMNS + layout.nameColumns;
    for (const ProxyColumn* described : layout.columns) {
        column += layout.gap;
        if (described->isFigure)
            grid.PutRight(column + described->columns, area.row, described->head, Tone::Head);
        else
            grid.Put(column, area.row, described->head, Tone::Head);
        column += described->columns;
    }
    if (layout.trendColumns > 0)
        grid.Put(column + layout.gap, area.row,
            "INPUT, LAST " + AgeText(SecondsAColumn(layout.trendColumns) * layout.trendColumns * 1'000'000),
            Tone::Head);
}

void DrawRow(Grid& grid, const Area& area, const TableLayout& layout, const ShownProxy& proxy,
    const ViewState& state, bool isSelected)
{
    if (isSelected)
        grid.Put(area.column, area.row, ">", Tone::Strong);
    grid.Put(area.column + MARK_COLUMNS, area.row, CutFront(proxy.name, layout.nameColumns),
        isSelected ? Tone::Strong : Tone::Plain);
    int column = area.column + MARK_COLUMNS + layout.nameColumns;
    for (const ProxyColumn* described : layout.columns) {
        column += layout.gap;
        if (!described->isFigure)
            grid.Put(column, area.row, described->text(proxy), described->tone(proxy));
        else if (proxy.reading.isUp)
            grid.PutRight(
                column + described->columns, area.row, described->text(proxy), described->tone(proxy));
        else
            grid.PutRight(column + described->columns, area.row, "-", Tone::Faint);
        column += described->columns;
    }
    if (layout.trendColumns > 0 && proxy.history != nullptr) {
        const auto values = ColumnsOf(*proxy.history, PlotSeries::Input, state.nowUs, layout.trendColumns);
        DrawChart(grid, { column + layout.gap, area.row, layout.trendColumns, 1 }, values, ScaleOf(values),
            state.isUtf8, Tone::Plain);
    }
}

} // namespace

void DrawTable(Grid& grid, const Area& area, bool hasHead, const ViewState& state)
{
    const TableLayout layout = LayOutTable(state, area.columns);
    if (hasHead)
        DrawHead(grid, { area.column, area.row - 1, area.columns, 1 }, layout);
    const auto count = static_cast<int>(state.proxies.size());
    const auto selected = static_cast<int>(state.selected);
    const int first = std::clamp(selected - area.rows / 2, 0, std::max(0, count - area.rows));
    for (int row = 0; row < area.rows && first + row < count; ++row)
        DrawRow(grid, { area.column, area.row + row, area.columns, 1 }, layout,
            state.proxies[static_cast<size_t>(first) + static_cast<size_t>(row)], state,
            first + row == selected);
}

} // namespace arqctl::top
