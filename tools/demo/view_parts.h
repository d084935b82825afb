#pragma once

#include "demo/screen.h"
#include "demo/view.h"

namespace demo {

// Pieces of the view. Each draws inside the cells it is given.

struct PlotArea {
    int left, top;
    int columns, rows; // of the plot; the axis and the phases' names take two rows more
};

// Over the run's time: which part of the packets was missing, and what became of them.
void DrawLossPlot(
    Screen& screen, const PlotArea& area, const ViewState& state, Side side, const ViewStyle& style);

// Two points a cell, one above the other, in the picture's proportions.
void DrawPicture(Screen& screen, int left, int top, int columns, int rows, const Canvas& picture);

void DrawLegend(Screen& screen, int row, const ViewStyle& style);

Look BoldLook();
Look FaintLook();
Look PhaseLook(int level);
Look RecoveredLook(uint64_t packets); // stands out unless it is 0, and so below
Look LostLook(uint64_t packets);

} // namespace demo
