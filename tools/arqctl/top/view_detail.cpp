#include <algorithm>
#include <array>

#include "arqctl/top/amount_text.h"
#include "arqctl/top/view_parts.h"
#include "common/clock.h"

namespace arqctl::top {

namespace {

constexpr int LABEL = 10, VALUE = 11, SCALE = 11; // columns of a plot's texts
constexpr int TOTAL = 16; // "12.3k in all"
constexpr int WIDE_PLOT = 100; // from here on there is room for the totals
constexpr int TALLEST_PLOT = 6;
constexpr int LEAST_PLOT = 8; // columns; below that there are only figures
constexpr int RECEIVER = 17; // columns of an address and a gap
constexpr int64_t SHORTEST_SPAN_S = 180;

struct PlotLine {
    PlotSeries series;
    const char* label;
    Tone tone;
};

// In the order in which they find room.
constexpr std::array<PlotLine, SERIES_COUNT> PLOT_LINES { {
    { PlotSeries::Input, "input", Tone::Good },
    { PlotSeries::Output, "output", Tone::Good },
    { PlotSeries::Lost, "lost", Tone::Hurt },
    { PlotSeries::Resent, "resent", Tone::Plain },
    { PlotSeries::Withheld, "withheld", Tone::Warn },
} };

bool IsBitRate(PlotSeries series)
{
    return series == PlotSeries::Input || series == PlotSeries::Output;
}

std::string ValueText(PlotSeries series, double value)
{
    return IsBitRate(series) ? BitRateText(value) : PerSecondText(value);
}

uint64_t TotalOf(PlotSeries series, const Totals& totals)
{
    switch (series) {
    case PlotSeries::Input:
        return totals.received;
    case PlotSeries::Output:
        return totals.sent;
    case PlotSeries::Lost:
        return totals.lost;
    case PlotSeries::Resent:
        return totals.sentBeyond;
    case PlotSeries::Withheld:
        return totals.withheld;
    }
    return 0;
}

// What the rows of the detail are used for.
struct DetailRows {
    int plots = 0; // lines of plots
    int tall = 1; // rows of each
    bool hasAxis = false;
    int receivers = 0; // rows, the head of the list included
};

int ReceiversARow(int columns)
{
    return std::max(1, (columns - 1) / RECEIVER);
}

DetailRows DivideRows(int rows, int columns, int receivers)
{
    DetailRows divided;
    int left = rows - 1; // the head
    divided.plots = std::clamp(left, 0, static_cast<int>(PLOT_LINES.size()));
    left -= divided.plots;
    divided.hasAxis = left > 0;
    left -= divided.hasAxis ? 1 : 0;
    const int aRow = ReceiversARow(columns);
    const int wanted = 1 + std::max(1, (receivers + aRow - 1) / aRow);
    const int spare = std::max(0, left - std::max(wanted, 3));
    divided.tall = std::min(TALLEST_PLOT, 1 + spare / static_cast<int>(PLOT_LINES.size()));
    divided.receivers = left - (divided.tall - 1) * divided.plots;
    return divided;
}

// "--- proxy 1: good ---- input 5000, media 10000 ---"
void DrawDetailHead(Grid& grid, const Area& area, const ShownProxy& proxy, const ViewState& state)
{
    for (int column = 0; column < area.columns; ++column)
        grid.PutLetter(area.column + column, area.row, state.isUtf8 ? U'─' : U'-', Tone::Faint);
    const std::string name = " " + CutFront(proxy.name, area.columns / 2) + ": ";
    const auto nameColumns = static_cast<int>(LettersOf(name).size());
    grid.Put(area.column + 1, area.row, name, Tone::Strong);
    const std::string state_text = CutBack(StateSentence(proxy, state.nowUs), area.columns - nameColumns - 3);
    grid.Put(area.column + 1 + nameColumns, area.row, state_text, ToneOf(StateOf(proxy)));
    const int end = area.column + 1 + nameColumns + static_cast<int>(LettersOf(state_text).size());
    grid.Put(end, area.row, " ");
    const auto factsColumns = static_cast<int>(LettersOf(proxy.facts).size());
    if (factsColumns > 0 && end + 4 + factsColumns + 3 <= area.column + area.columns)
        grid.PutRight(area.column + area.columns - 2, area.row, " " + proxy.facts + " ", Tone::Faint);
}

struct PlotColumns {
    int chart; // column at which the plot begins
    int columns; // of it
    bool hasTotal;
};

PlotColumns DividePlot(int columns)
{
    const bool hasTotal = columns >= WIDE_PLOT;
    const int chart = 1 + LABEL + VALUE + 2;
    return { chart, columns - chart - 2 - SCALE - (hasTotal ? TOTAL : 0), hasTotal };
}

void DrawPlot(
    Grid& grid, const Area& area, const PlotLine& line, const ShownProxy& proxy, const ViewState& state)
{
    const PlotColumns divided = DividePlot(area.columns);
    const int bottom = area.row + area.rows - 1;
    const double value = SampleOf(proxy.reading)[static_cast<size_t>(line.series)];
    const bool isHurt = !IsBitRate(line.series) && line.series != PlotSeries::Resent && value > 0;
    grid.Put(area.column + 1, bottom, line.label, Tone::Head);
    grid.PutRight(area.column + 1 + LABEL + VALUE, bottom,
        proxy.reading.isUp ? ValueText(line.series, value) : "-",
        !proxy.reading.isUp ? Tone::Faint
            : isHurt        ? Tone::Warn
                            : Tone::Plain);
    if (divided.columns < LEAST_PLOT || proxy.history == nullptr)
        return;
    const auto values = ColumnsOf(*proxy.history, line.series, state.nowUs, divided.columns);
    const double top = ScaleOf(values);
    const int chart = area.column + divided.chart;
    DrawChart(grid, { chart, area.row, divided.columns, area.rows }, values, top, state.isUtf8, line.tone);
    for (int row = 0; row < area.rows; ++row)
        for (const int side : { chart - 1, chart + divided.columns })
            grid.PutLetter(side, area.row + row, state.isUtf8 ? U'│' : U'|', Tone::Faint);
    grid.Put(chart + divided.columns + 1, area.row, ValueText(line.series, top), Tone::Faint);
    if (divided.hasTotal)
        grid.PutRight(area.column + area.columns - 1, bottom,
            CountText(TotalOf(line.series, proxy.reading.totals)) + " in all", Tone::Faint);
}

// How far back the plots go, and that their upper end stands at the right.
void DrawAxis(Grid& grid, const Area& area, bool isUtf8)
{
    const PlotColumns divided = DividePlot(area.columns);
    if (divided.columns < LEAST_PLOT)
        return;
    const int64_t seconds = SecondsAColumn(divided.columns);
    const std::string span = AgeText(seconds * divided.columns * common::US_PER_SECOND) + " ago";
    const std::string step = std::to_string(seconds) + " s a column";
    const int chart = area.column + divided.chart, end = chart + divided.columns;
    grid.Put(chart - 1, area.row, (isUtf8 ? "└ " : "+ ") + span, Tone::Faint);
    grid.PutRight(end + 1, area.row, isUtf8 ? "now ┘" : "now +", Tone::Faint);
    if (divided.columns > static_cast<int>(span.size() + step.size()) + 10)
        grid.Put(chart + (divided.columns - static_cast<int>(step.size())) / 2, area.row, step, Tone::Faint);
    grid.Put(end + 2, area.row, "full bar", Tone::Faint);
}

std::string ReceiversHead(const ShownProxy& proxy)
{
    const size_t count = proxy.reading.statistics.receivers.size();
    const std::string text = count == 0 ? "no receivers"
        : count == 1                    ? "1 receiver"
                                        : std::to_string(count) + " receivers";
    return proxy.reading.isUp ? text : text + " at its last answer";
}

// As many as fit, the marked one among them; the last place then tells how many more there are.
void DrawReceivers(Grid& grid, const Area& area, const ShownProxy& proxy, const std::string& marked)
{
    const std::vector<std::string>& receivers = proxy.reading.statistics.receivers;
    grid.Put(area.column + 1, area.row, proxy.reading.hasBeenUp ? ReceiversHead(proxy) : "", Tone::Head);
    const int aRow = ReceiversARow(area.columns);
    const int places = (area.rows - 1) * aRow;
    const auto count = static_cast<int>(receivers.size());
    if (places <= 0)
        return;
    const int shown = count <= places ? count : places - 1;
    const auto found = std::find(receivers.begin(), receivers.end(), marked);
    const int markedAt = found == receivers.end() ? 0 : static_cast<int>(found - receivers.begin());
    const int first = std::clamp(markedAt - shown / 2, 0, count - shown);
    for (int place = 0; place < shown; ++place) {
        const std::string& receiver = receivers[static_cast<size_t>(first) + static_cast<size_t>(place)];
        grid.Put(area.column + 1 + place % aRow * RECEIVER, area.row + 1 + place / aRow, receiver,
            first + place == markedAt && !marked.empty() ? Tone::Ask
                : proxy.reading.isUp                     ? Tone::Plain
                                                         : Tone::Faint);
    }
    if (shown < count)
        grid.Put(area.column + 1 + shown % aRow * RECEIVER, area.row + 1 + shown / aRow,
            "and " + std::to_string(count - shown) + " more", Tone::Faint);
}

} // namespace

int64_t SecondsAColumn(int columns)
{
    for (const int64_t seconds : { 1, 2, 5, 10 })
        if (seconds * columns >= SHORTEST_SPAN_S)
            return seconds;
    return 10;
}

std::vector<std::optional<double>> ColumnsOf(
    const RecentHistory& history, PlotSeries series, int64_t nowUs, int columns)
{
    const int64_t step = SecondsAColumn(columns);
    const int64_t last = nowUs / common::US_PER_SECOND / step;
    std::vector<std::optional<double>> values;
    for (int64_t at = last - columns + 1; at <= last; ++at)
        values.push_back(history.Over(series, at * step, step));
    return values;
}

double ScaleOf(const std::vector<std::optional<double>>& values)
{
    double highest = 0;
    for (const std::optional<double>& value : values)
        highest = std::max(highest, value.value_or(0));
    return RoundTop(highest, 1);
}

void DrawDetail(Grid& grid, const Area& area, const ViewState& state)
{
    if (area.rows < 1 || state.selected >= state.proxies.size())
        return;
    const ShownProxy& proxy = state.proxies[state.selected];
    const auto count = static_cast<int>(proxy.reading.statistics.receivers.size());
    const DetailRows divided = DivideRows(area.rows, area.columns, count);
    DrawDetailHead(grid, area, proxy, state);
    int row = area.row + 1;
    for (int i = 0; i < divided.plots; ++i, row += divided.tall)
        DrawPlot(grid, { area.column, row, area.columns, divided.tall }, PLOT_LINES[static_cast<size_t>(i)],
            proxy, state);
    if (divided.hasAxis)
        DrawAxis(grid, { area.column, row++, area.columns, 1 }, state.isUtf8);
    if (divided.receivers > 0)
        DrawReceivers(grid, { area.column, row, area.columns, divided.receivers }, proxy, state.marked);
}

} // namespace arqctl::top
