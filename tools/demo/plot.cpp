#include "demo/plot.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <string>

#include "demo/font.h"
#include "demo/format.h"

namespace demo {

namespace {

constexpr Color PAPER { 250, 250, 247 };
constexpr Color INK { 40, 44, 52 };
constexpr Color FAINT { 120, 126, 138 };
constexpr Color GRID { 222, 224, 228 };
constexpr Color GREEN { 38, 150, 84 };
constexpr Color RED { 208, 52, 44 };
constexpr Color WAITING { 236, 170, 40 };
constexpr std::array<Color, 3> SHADES { { PAPER, { 255, 243, 214 }, { 247, 196, 188 } } };

constexpr int LEFT = 96;
constexpr int RIGHT = PLOT_WIDTH - 32;
constexpr int WIDTH = RIGHT - LEFT;
constexpr int PANEL_HEIGHT = 200;
constexpr std::array<int, 2> PANEL_TOP { 124, 392 };
constexpr int BAR_COLUMNS = 180;

// Percent. The axis is that of the square root, so that single losses show beside a dead line.
constexpr std::array TICKS { 0, 1, 5, 10, 25, 50, 100 };

int HeightOf(double part)
{
    return static_cast<int>(std::lround(std::sqrt(part) * PANEL_HEIGHT));
}

class Panel {
public:
    Panel(Canvas& canvas, int top) : m_canvas(canvas), m_nTop(top) {}

    void Shade(const std::vector<Phase>& phases) const
    {
        const int64_t length = phases.back().endUs;
        for (const Phase& phase : phases) {
            const int from = X(phase.startUs, length), to = std::max(from + 2, X(phase.endUs, length));
            m_canvas.Rectangle(
                from, m_nTop, to - from, PANEL_HEIGHT, SHADES[static_cast<size_t>(phase.level)]);
        }
        for (const Phase& phase : phases) {
            const bool isShort = phase.level == 2; // its name stands beside it, below the next one's
            const int x = isShort ? X(phase.endUs, length) + 8 : X(phase.startUs, length) + 8;
            m_canvas.Text(x, m_nTop + (isShort ? 30 : 8), phase.name, 2, isShort ? RED : FAINT);
        }
    }

    void Axes(int64_t lengthUs) const
    {
        for (const int percent : TICKS) {
            const int y = m_nTop + PANEL_HEIGHT - HeightOf(percent / 100.0);
            m_canvas.Rectangle(LEFT, y, WIDTH, 1, percent == 0 ? INK : GRID);
            const std::string label = Format("%d %%", percent);
            m_canvas.Text(LEFT - 10 - TextWidth(label, 2), y - 7, label, 2, FAINT);
        }
        m_canvas.Rectangle(LEFT, m_nTop, 1, PANEL_HEIGHT, INK);
        const int64_t step = TimeStep(lengthUs);
        for (int64_t second = 0; second * 1'000'000 <= lengthUs; second += step) {
            const int x = X(second * 1'000'000, lengthUs);
            m_canvas.Rectangle(x, m_nTop + PANEL_HEIGHT, 1, 5, INK);
            const std::string label = Format("%lld s", static_cast<long long>(second));
            m_canvas.Text(x - TextWidth(label, 2) / 2, m_nTop + PANEL_HEIGHT + 10, label, 2, FAINT);
        }
    }

    void Bars(const History& history, Side side) const
    {
        for (int column = 0; column < BAR_COLUMNS; ++column) {
            const Stretch stretch = history.Column(column, BAR_COLUMNS);
            if (stretch.sent == 0)
                continue;
            const Losses& losses = stretch.sides[Index(side)];
            const int from = LEFT + WIDTH * column / BAR_COLUMNS,
                      to = LEFT + WIDTH * (column + 1) / BAR_COLUMNS;
            int bottom = m_nTop + PANEL_HEIGHT;
            const auto bar = [&](uint32_t until, Color color) {
                const int top = m_nTop + PANEL_HEIGHT
                    - HeightOf(std::min(1.0, static_cast<double>(until) / stretch.sent));
                m_canvas.Rectangle(from + 1, top, to - from - 1, bottom - top, color);
                bottom = top;
            };
            bar(losses.recovered, GREEN);
            bar(losses.recovered + losses.lost, RED);
            bar(losses.missing, WAITING);
        }
    }

private:
    static int X(int64_t timeUs, int64_t lengthUs)
    {
        return LEFT + static_cast<int>(WIDTH * std::min(timeUs, lengthUs) / lengthUs);
    }

    static int64_t TimeStep(int64_t lengthUs)
    {
        for (const int64_t step : { 1, 2, 5, 10, 30, 60, 300 })
            if (lengthUs / (step * 1'000'000) <= 12)
                return step;
        return 900;
    }

    Canvas& m_canvas;
    int m_nTop;
};

void DrawHead(Canvas& canvas, bool isGood)
{
    canvas.Text(LEFT, 22, "tx_proxy: the same loss, with and without asking again", 3, INK);
    int x = LEFT;
    const auto entry = [&](Color color, const char* text) {
        canvas.Rectangle(x, 60, 14, 14, color);
        canvas.Text(x + 22, 60, text, 2, INK);
        x += 22 + TextWidth(text, 2) + 36;
    };
    entry(GREEN, "lost on the line, recovered");
    entry(RED, "lost for good");
    entry(SHADES[1], "line loses 5 %");
    entry(SHADES[2], "line is dead");
    if (!isGood)
        canvas.Text(RIGHT - TextWidth("FAILED", 3), 22, "FAILED", 3, RED);
}

// Above a panel: who it is, and what it came to.
void DrawTitle(Canvas& canvas, const History& history, Side side)
{
    Losses sum;
    for (const Stretch& stretch : history.All())
        sum += stretch.sides[Index(side)];
    const int y = PANEL_TOP[Index(side)] - 24;
    const char* const name = side == Side::A ? "A asks for what is missing" : "B does not ask";
    canvas.Text(LEFT, y, name, 2, INK);
    const std::string recovered = Format("%u recovered", sum.recovered),
                      lost = Format("%u lost for good", sum.lost);
    const int lostX = RIGHT - TextWidth(lost, 2), recoveredX = lostX - 30 - TextWidth(recovered, 2);
    const std::string missing = Format("%u missing:", sum.missing);
    canvas.Text(lostX, y, lost, 2, RED);
    canvas.Text(recoveredX, y, recovered, 2, GREEN);
    canvas.Text(recoveredX - 20 - TextWidth(missing, 2), y, missing, 2, FAINT);
}

} // namespace

Canvas DrawPlot(const History& history, const std::vector<Phase>& phases, bool isGood)
{
    Canvas canvas(PLOT_WIDTH, PLOT_HEIGHT, PAPER);
    DrawHead(canvas, isGood);
    for (const Side side : SIDES) {
        const Panel panel(canvas, PANEL_TOP[Index(side)]);
        panel.Shade(phases);
        panel.Axes(phases.back().endUs);
        panel.Bars(history, side);
        DrawTitle(canvas, history, side);
    }
    canvas.Text(LEFT, PLOT_HEIGHT - 34,
        "Bars: how many of the packets sent at that time the line lost; the same for A and B.", 2, FAINT);
    return canvas;
}

} // namespace demo
