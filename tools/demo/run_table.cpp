#include "demo/run_table.h"

#include "demo/format.h"

namespace demo {

std::string RunTable(const History& history, const std::vector<Phase>& phases)
{
    std::string text = "seconds,line,sent,a_missing,a_recovered,a_lost,b_missing,b_recovered,b_lost\r\n";
    int64_t time = 0;
    for (const Stretch& stretch : history.All()) {
        text += Format(
            "%.1f,%s,%u", static_cast<double>(time) / 1e6, PhaseAt(phases, time).name.c_str(), stretch.sent);
        for (const Losses& losses : stretch.sides)
            text += Format(",%u,%u,%u", losses.missing, losses.recovered, losses.lost);
        text += "\r\n";
        time += History::STRETCH_US;
    }
    return text;
}

} // namespace demo
