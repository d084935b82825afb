#include <cerrno>
#include <cstdio>

#include "common/clock.h"
#include "demo/format.h"
#include "demo/plain_table.h"
#include "demo/plot.h"
#include "demo/png.h"
#include "demo/run_table.h"
#include "demo/show.h"
#include "demo/verdict.h"

// What Show does at the end.

namespace demo {

int Show::Judge()
{
    const std::vector<std::string> faults = Faults(m_ledger);
    if (m_nRows > 0)
        std::printf("%s", TableRow("end", State(common::NowUs())).c_str());
    WriteResults(faults.empty());
    std::string text = faults.empty() ? "GOOD: " + Summary(m_ledger) : "FAILED: ";
    for (size_t i = 0; i < faults.size(); ++i)
        text += (i > 0 ? "; " : "") + faults[i];
    std::printf("\n%s\n", text.c_str());
    (void)std::fflush(stdout);
    return faults.empty() ? 0 : 1;
}

void Show::WriteResults(bool isGood)
{
    std::printf("\n");
    const auto write = [this](const char* name, const auto& content, const std::string& what) {
        if (m_folder.Write(name, content))
            std::printf("%s/%-12s %s\n", m_folder.Path().c_str(), name, what.c_str());
        else
            std::printf("%s/%-12s could not be written: %s\n", m_folder.Path().c_str(), name,
                ErrorText(errno).c_str());
    };
    const std::vector<Moment> moments = m_gallery.Moments();
    for (const Side side : SIDES) {
        const Canvas strip = DrawStrip(moments, side, m_phases, m_feed.PicturesPerSecond());
        write(side == Side::A ? "strip-a.png" : "strip-b.png", EncodePng(strip),
            Format("what %c showed, %zu moments", Letter(side), moments.size()));
    }
    write("plot.png", EncodePng(DrawPlot(m_ledger.Past(), m_phases, isGood)), "loss and recovery over time");
    write("run.csv", RunTable(m_ledger.Past(), m_phases), "the same in figures");
}

} // namespace demo
