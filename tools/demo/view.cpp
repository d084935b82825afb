#include "demo/view.h"

#include <algorithm>

#include "demo/format.h"
#include "demo/view_parts.h"

namespace demo {

namespace {

constexpr int FIXED_ROWS = 10; // title, line, names, axis, phases, four of figures, legend
constexpr int FEWEST_PLOT_ROWS = 5;
constexpr int FEWEST_COLUMNS = 60;
constexpr int FEWEST_ROWS = FIXED_ROWS + 3;

std::string Amount(int64_t us)
{
    if (us < 0)
        return "-";
    return us < 1'000'000 ? Format("%.0f ms", static_cast<double>(us) / 1e3)
                          : Format("%.2f s", static_cast<double>(us) / 1e6);
}

std::string MBits(int64_t bits)
{
    return Format("%.1f Mbit/s", static_cast<double>(bits) / 1e6);
}

void DrawHead(Screen& screen, const ViewState& state, const ViewStyle& style)
{
    const double length = static_cast<double>(state.lengthUs) / 1e6;
    const double time = std::min(length, static_cast<double>(state.timeUs) / 1e6);
    screen.Put(1, 0, "tx_proxy demo", { .ink = std::nullopt, .ground = std::nullopt, .isBold = true });
    screen.Put(16, 0, state.source, FaintLook());
    screen.PutRight(screen.Columns() - 1, 0, Format("%.1f s of %.0f s", time, length));
    const char* const arrow = style.isUtf8 ? " → " : " > ";
    const Phase& phase = PhaseAt(*state.phases, state.timeUs);
    const std::string path = std::string("source") + arrow + "tx_proxy" + arrow + "line: ";
    screen.Put(1, 1, path, FaintLook());
    screen.Put(1 + LetterCount(path), 1, phase.name, PhaseLook(phase.level));
    screen.Put(1 + LetterCount(path) + LetterCount(phase.name), 1, std::string(arrow) + "receivers A and B",
        FaintLook());
}

// Both sides' figures below each other, the proxy's own below them.
void DrawFigures(Screen& screen, const ViewState& state, int row)
{
    struct Cell {
        int end; // column before which it ends
        const char* name;
    };
    constexpr std::array<Cell, 8> CELLS { { { 14, "got" }, { 24, "missing" }, { 35, "recovered" },
        { 42, "lost" }, { 51, "waiting" }, { 58, "asked" }, { 69, "round trip" }, { 78, "buffer" } } };
    for (const Cell& cell : CELLS)
        screen.PutRight(cell.end, row, cell.name, FaintLook());
    for (const Side side : SIDES) {
        const arqrx::Figures& f = state.figures[Index(side)];
        const int line = row + 1 + static_cast<int>(Index(side));
        const std::array<std::string, 8> values { Format("%llu", Whole(f.received)),
            Format("%llu", Whole(f.missing)), Format("%llu", Whole(f.recovered)),
            Format("%llu", Whole(f.lost)), Format("%llu", Whole(f.waiting)),
            Format("%llu", Whole(f.numbersAsked)), Amount(f.roundTripUs), Amount(f.bufferedUs) };
        screen.Put(1, line, std::string(1, Letter(side)), BoldLook());
        for (size_t i = 0; i < CELLS.size(); ++i)
            screen.PutRight(CELLS[i].end, line, values[i],
                i == 2       ? RecoveredLook(f.recovered)
                    : i == 3 ? LostLook(f.lost)
                             : Look {});
    }
}

void DrawProxy(Screen& screen, const ViewState& state, int row)
{
    screen.Put(1, row, "tx_proxy", BoldLook());
    std::string text = state.proxyNote;
    if (state.proxy)
        text = Format("in %llu packets, %s, %lld missing; out %llu, %s", Whole(state.proxy->received),
            MBits(state.proxy->receivedBits).c_str(), static_cast<long long>(state.proxy->inputLoss),
            Whole(state.proxy->sent), MBits(state.proxy->sentBits).c_str());
    screen.Put(10, row, text, FaintLook());
}

void DrawSmall(Screen& screen, const ViewState& state)
{
    screen.Put(0, 0,
        Format("tx_proxy demo %.1f s, line: %s", static_cast<double>(state.timeUs) / 1e6,
            PhaseAt(*state.phases, state.timeUs).name.c_str()));
    for (const Side side : SIDES) {
        const arqrx::Figures& f = state.figures[Index(side)];
        screen.Put(0, 1 + static_cast<int>(Index(side)),
            Format("%c missing %llu recovered %llu lost %llu", Letter(side), Whole(f.missing),
                Whole(f.recovered), Whole(f.lost)));
    }
    screen.Put(0, 3, "The plots need 60 x 13.");
}

// Rows for the pictures: as high as half the width allows, but the plots keep theirs. 0 without pictures.
int PictureRows(const ViewState& state, const ViewStyle& style, int half, int free)
{
    const Canvas* const picture = state.pictures[0] != nullptr ? state.pictures[0] : state.pictures[1];
    if (style.colors == Colors::None || !style.isUtf8 || picture == nullptr)
        return 0;
    const int wanted = (half - 2) * picture->Height() / std::max(1, picture->Width()) / 2;
    const int rows = std::min({ wanted, free - FEWEST_PLOT_ROWS, free * 3 / 5 });
    return rows >= 4 ? rows : 0;
}

} // namespace

Screen DrawView(const ViewState& state, int columns, int rows, const ViewStyle& style)
{
    Screen screen(columns, rows);
    if (columns < FEWEST_COLUMNS || rows < FEWEST_ROWS) {
        DrawSmall(screen, state);
        return screen;
    }
    DrawHead(screen, state, style);
    const int half = (columns - 2) / 2, free = rows - FIXED_ROWS;
    const int pictureRows = PictureRows(state, style, half, free), plotRows = free - pictureRows;
    for (const Side side : SIDES) {
        const int left = side == Side::A ? 1 : columns - half;
        screen.Put(left, 2,
            side == Side::A ? "A  asks for what is missing" : "B  the same line, does not ask", BoldLook());
        if (pictureRows > 0 && state.pictures[Index(side)] != nullptr)
            DrawPicture(screen, left, 3, half - 1, pictureRows, *state.pictures[Index(side)]);
        const PlotArea area { left, 3 + pictureRows, half - 1, plotRows };
        DrawLossPlot(screen, area, state, side, style);
    }
    const int below = 3 + pictureRows + plotRows + 2;
    DrawFigures(screen, state, below);
    DrawProxy(screen, state, below + 3);
    DrawLegend(screen, below + 4, style);
    return screen;
}

} // namespace demo
