#include "arqctl/top/chart.h"

#include <algorithm>
#include <cmath>
#include <string_view>

namespace arqctl::top {

namespace {

constexpr int EIGHTHS = 8;
constexpr std::u32string_view BLOCKS = U" ▁▂▃▄▅▆▇█";
constexpr std::u32string_view LETTERS = U" .:-=+*%#";

// In eighths of a cell.
int HeightOf(std::optional<double> value, double top, int rows)
{
    if (!value || !(*value > 0) || !(top > 0))
        return 0;
    const double full = rows * EIGHTHS;
    return static_cast<int>(std::clamp(std::round(*value / top * full), 1.0, full));
}

} // namespace

void DrawChart(Grid& grid, const Area& area, const std::vector<std::optional<double>>& values, double top,
    bool isUtf8, Tone tone)
{
    const std::u32string_view letters = isUtf8 ? BLOCKS : LETTERS;
    const int columns = std::min(area.columns, static_cast<int>(values.size()));
    bool hasBegun = false; // what lies before the first value is no gap
    for (int column = 0; column < columns; ++column) {
        hasBegun = hasBegun || values[static_cast<size_t>(column)].has_value();
        if (hasBegun && !values[static_cast<size_t>(column)])
            grid.PutLetter(area.column + column, area.row + area.rows - 1, isUtf8 ? U'·' : U'?', Tone::Faint);
        const int height = HeightOf(values[static_cast<size_t>(column)], top, area.rows);
        for (int row = 0; row * EIGHTHS < height; ++row) {
            const auto part = static_cast<size_t>(std::min(height - row * EIGHTHS, EIGHTHS));
            grid.PutLetter(area.column + column, area.row + area.rows - 1 - row, letters[part], tone);
        }
    }
}

} // namespace arqctl::top
