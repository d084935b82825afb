#include "demo/plain_table.h"

#include "demo/format.h"

namespace demo {

namespace {

std::string SideCells(const arqrx::Figures& f)
{
    return Format(
        "%6llu %7llu %9llu %5llu", Whole(f.received), Whole(f.missing), Whole(f.recovered), Whole(f.lost));
}

} // namespace

std::string TableHead()
{
    const std::string cells = "   got missing recovered  lost";
    return Format("%5s | %-15s %6s | %-30s | %-30s |\n", "", "", "", "A asks for what is missing",
               "B does not ask")
        + Format("%5s | %-15s %6s | %s | %s | %s\n", "time", "line", "sent", cells.c_str(), cells.c_str(),
            "round trip");
}

std::string TableRow(const std::string& time, const ViewState& state)
{
    const arqrx::Figures& a = state.figures[Index(Side::A)];
    const std::string trip
        = a.roundTripUs < 0 ? "-" : Format("%.0f ms", static_cast<double>(a.roundTripUs) / 1000);
    return Format("%5s | %-15s %6llu | %s | %s | %10s\n", time.c_str(),
        PhaseAt(*state.phases, state.timeUs).name.c_str(), Whole(state.sent), SideCells(a).c_str(),
        SideCells(state.figures[Index(Side::B)]).c_str(), trip.c_str());
}

} // namespace demo
