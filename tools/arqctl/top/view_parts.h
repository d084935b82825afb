#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "arqctl/top/chart.h"
#include "arqctl/top/grid.h"
#include "arqctl/top/view.h"

namespace arqctl::top {

// Pieces of the view. Each draws inside the cells that it is given.

// One line a proxy; the columns are chosen by the width. `area` has the lines, the head stands above if `hasHead`.
void DrawTable(Grid& grid, const Area& area, bool hasHead, const ViewState& state);

// The selected proxy: its name and state, plots, receivers, as far as there are rows.
void DrawDetail(Grid& grid, const Area& area, const ViewState& state);

// The keys and what the figures mean.
void DrawHelp(Grid& grid, const Area& area);

// Seconds a column of a plot, so that it shows some minutes.
int64_t SecondsAColumn(int columns);
// `columns` values, the last one of the present seconds.
std::vector<std::optional<double>> ColumnsOf(
    const RecentHistory& history, PlotSeries series, int64_t nowUs, int columns);
// What a full bar stands for.
double ScaleOf(const std::vector<std::optional<double>>& values);

} // namespace arqctl::top
