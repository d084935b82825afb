#include "arqrx/program/report.h"

#include <algorithm>

namespace arqrx {

std::string ReasonWord(EndReason reason)
{
    switch (reason) {
    case EndReason::Signal:
        return "signal";
    case EndReason::Duration:
        return "duration";
    case EndReason::Silence:
        return "silence";
    case EndReason::OutputsFailed:
        return "outputs";
    }
    return "";
}

ExitStatus StatusOf(const Sample& last, const Options& options)
{
    if (std::any_of(
            last.outputs.begin(), last.outputs.end(), [](const OutputFigures& o) { return o.hasFailed; }))
        return ExitStatus::OutputFailed;
    if (last.core.received == 0)
        return ExitStatus::NoMedia;
    const double all = static_cast<double>(last.core.played + last.core.lost);
    if (options.mostLoss && static_cast<double>(last.core.lost) > *options.mostLoss * all)
        return ExitStatus::Loss;
    return ExitStatus::Good;
}

} // namespace arqrx
