#pragma once

#include <vector>

#include "demo/canvas.h"
#include "demo/history.h"
#include "demo/phases.h"

namespace demo {

constexpr int PLOT_WIDTH = 1200;
constexpr int PLOT_HEIGHT = 680;

// The run as a picture: over time, for A above and B below, which part of the packets was missing, and what became of
// them; the lines' phases are shaded.
Canvas DrawPlot(const History& history, const std::vector<Phase>& phases, bool isGood);

} // namespace demo
