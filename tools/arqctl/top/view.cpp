#include "arqctl/top/view.h"

#include <algorithm>

#include "arqctl/top/view_parts.h"

namespace arqctl::top {

namespace {

constexpr int LEAST_DETAIL = 9; // rows with which the selected proxy is shown well
constexpr int SOME_DETAIL = 3; // fewer say nothing

// Which rows there are, from top to bottom.
struct ScreenRows {
    bool hasTitle = false, hasHead = false, hasMessage = false, hasKeys = false;
    int table = 0, detail = 0;
};

ScreenRows DivideScreen(int rows, int proxies, bool isQuestion)
{
    ScreenRows divided;
    divided.hasKeys = rows >= (isQuestion ? 2 : 4);
    divided.hasMessage = rows >= 6;
    int left = rows - (divided.hasKeys ? 1 : 0) - (divided.hasMessage ? 1 : 0);
    divided.hasHead = left >= 2;
    left -= divided.hasHead ? 1 : 0;
    divided.hasTitle = left >= 3;
    left -= divided.hasTitle ? 1 : 0;
    const int all = std::min(left, std::max(proxies, 1));
    divided.table = std::min(all, std::max({ 1, left - LEAST_DETAIL, left / 2 }));
    if (left - divided.table < SOME_DETAIL)
        divided.table = all;
    divided.detail = left - divided.table;
    return divided;
}

std::string Summary(const ViewState& state)
{
    const auto count = [&](ProxyState wanted) {
        return std::count_if(state.proxies.begin(), state.proxies.end(),
            [wanted](const ShownProxy& proxy) { return StateOf(proxy) == wanted; });
    };
    const auto all = state.proxies.size();
    std::string text = all == 1 ? "1 proxy" : std::to_string(all) + " proxies";
    const char* separator = ": ";
    const auto add = [&](ProxyState wanted, const char* words) {
        if (const auto found = count(wanted); found > 0) {
            text += separator + std::to_string(found) + words;
            separator = ", ";
        }
    };
    add(ProxyState::InputGone, " without input");
    add(ProxyState::Down, " down");
    add(ProxyState::Waiting, " waiting");
    add(ProxyState::Good, " good");
    return text;
}

Tone WorstTone(const ViewState& state)
{
    for (const ShownProxy& proxy : state.proxies)
        if (ToneOf(StateOf(proxy)) == Tone::Bad)
            return Tone::Bad;
    return Tone::Plain;
}

// What finds no room beside the summary is left out: the name first.
void DrawTitle(Grid& grid, const ViewState& state)
{
    constexpr std::string_view NAME = "arqctl top  ";
    const std::string summary = Summary(state);
    const int room = grid.Columns() - 2;
    const auto clock = static_cast<int>(state.clock.size()) + 2;
    const bool hasClock = static_cast<int>(summary.size()) + clock <= room;
    const bool hasName = static_cast<int>(NAME.size() + summary.size()) + clock <= room;
    if (hasName)
        grid.Put(1, 0, NAME, Tone::Strong);
    grid.Put(hasName ? 1 + static_cast<int>(NAME.size()) : 1, 0, CutBack(summary, room), WorstTone(state));
    if (hasClock)
        grid.PutRight(grid.Columns() - 1, 0, state.clock, Tone::Faint);
}

// The longest text that fits.
std::string UsualKeys(int columns, bool isHelp)
{
    if (isHelp)
        return "Esc back  q quit";
    const std::string_view texts[]
        = { "up/down select  a add  d delete  i impair on/off  r reset  ? help  q quit",
              "a add  d delete  i impair  r reset  ? help  q quit", "a d i r  ? help  q quit",
              "? help  q quit" };
    for (const std::string_view text : texts)
        if (static_cast<int>(text.size()) + 2 <= columns)
            return std::string(text);
    return std::string(texts[3]);
}

// Above row `end`, over what stands there: the rest of the screen keeps its place while a question is open. Of a text that
// finds no room the beginning stays.
void DrawMessage(Grid& grid, int end, const ViewState& state)
{
    if (state.message.empty())
        return;
    const std::vector<std::string> lines = WrapText(state.message, grid.Columns() - 2);
    const int rows = std::min(end, static_cast<int>(lines.size()));
    for (int row = end - rows, line = 0; line < rows; ++row, ++line) {
        for (int column = 0; column < grid.Columns(); ++column)
            grid.PutLetter(column, row, U' ');
        grid.Put(1, row, lines[static_cast<size_t>(line)], state.messageTone);
    }
}

void DrawNoProxies(Grid& grid, const Area& area)
{
    int row = area.row;
    for (const std::string& line :
        WrapText("no proxy runs on this machine; it is looked for every 10 s", area.columns - 2))
        grid.Put(area.column + 1, row++, line, Tone::Faint);
}

// What names and messages from elsewhere may hold.
void LeaveAscii(Grid& grid)
{
    for (int row = 0; row < grid.Rows(); ++row)
        for (int column = 0; column < grid.Columns(); ++column)
            if (const Cell cell = grid.At(column, row); cell.letter >= 0x80)
                grid.PutLetter(column, row, U'?', cell.tone);
}

} // namespace

Grid DrawView(const ViewState& state, int columns, int rows)
{
    Grid grid(columns, rows);
    const bool isQuestion = !state.keys.empty();
    const ScreenRows divided = DivideScreen(grid.Rows(), static_cast<int>(state.proxies.size()), isQuestion);
    const int body = divided.hasTitle ? 1 : 0, head = divided.hasHead ? 1 : 0;
    if (divided.hasTitle)
        DrawTitle(grid, state);
    if (state.isHelp) {
        DrawHelp(grid, { 0, body, columns, head + divided.table + divided.detail });
    } else if (state.proxies.empty()) {
        DrawNoProxies(grid, { 0, body + head, columns, divided.table });
    } else {
        DrawTable(grid, { 0, body + head, columns, divided.table }, divided.hasHead, state);
        DrawDetail(grid, { 0, body + head + divided.table, columns, divided.detail }, state);
    }
    DrawMessage(grid, grid.Rows() - (divided.hasKeys ? 1 : 0), state);
    if (divided.hasKeys)
        grid.Put(1, grid.Rows() - 1, isQuestion ? state.keys : UsualKeys(columns, state.isHelp),
            isQuestion ? Tone::Ask : Tone::Faint);
    if (!state.isUtf8)
        LeaveAscii(grid);
    return grid;
}

} // namespace arqctl::top
