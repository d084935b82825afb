#include <array>

#include "arqctl/top/view_parts.h"

namespace arqctl::top {

namespace {

struct HelpLine {
    const char* what;
    const char* text;
};

constexpr std::array<HelpLine, 16> HELP_LINES { {
    { "up, down", "select a proxy (also k, j)" },
    { "a", "add a receiver to the selected proxy" },
    { "d", "delete one of its receivers" },
    { "i", "switch deliberate loss on or off" },
    { "r", "set its statistics to 0" },
    { "q", "quit; ? or Esc: back from here" },
    { "", "a, d, i and r say what will happen and ask first." },
    { "INPUT", "bit/s that come in, of the last full second" },
    { "OUTPUT", "bit/s to all receivers together, resends included" },
    { "LOST", "numbers missing from the input, packets a second" },
    { "RESENT", "sent beyond input x receivers: resends and answered pings (estimate)" },
    { "WITHHELD", "sent less than that: deliberate loss (estimate)" },
    { "STATE", "waiting: no input yet; INPUT GONE: none for 3 s; NO ANSWER: busy or hung;" },
    { "", "NO PROXY: not running; NO RIGHT: run this as the proxy's user" },
    { "RCVRS", "how many receivers are in its list" },
    { "plots", "a full bar is what stands at its right; ? or a dot where nothing is known" },
} };

constexpr int INDENT = 11;

} // namespace

void DrawHelp(Grid& grid, const Area& area)
{
    int row = area.row;
    for (const HelpLine& line : HELP_LINES) {
        grid.Put(area.column + 1, row, line.what, Tone::Head);
        for (const std::string& part : WrapText(line.text, area.columns - INDENT - 1)) {
            if (row >= area.row + area.rows)
                return;
            grid.Put(area.column + INDENT, row++, part);
        }
    }
}

} // namespace arqctl::top
