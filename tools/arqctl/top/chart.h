#pragma once

#include <optional>
#include <vector>

#include "arqctl/top/grid.h"

namespace arqctl::top {

// Cells of a grid.
struct Area {
    int column, row;
    int columns, rows;
};

// One bar a column, from the area's bottom: `top` fills it. What is above 0 shows at least a trace; a gap shows a dot
// ("?" without block characters). Eighths of a cell with block characters, else the letters ". : - = + * % #" from little to full.
void DrawChart(Grid& grid, const Area& area, const std::vector<std::optional<double>>& values, double top,
    bool isUtf8, Tone tone);

} // namespace arqctl::top
