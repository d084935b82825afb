#include "arqctl/core/request_budget.h"

#include <algorithm>
#include <optional>

namespace arqctl {

uint32_t RequestBudgetBytes(uint32_t windowMs, int64_t grossBitRate)
{
    constexpr uint32_t BITS_A_MS = 8000; // of a byte a second
    return windowMs * static_cast<uint32_t>(grossBitRate) / BITS_A_MS;
}

uint32_t RequestBudgetBytes(const std::vector<ReporterView>& reporters, int64_t grossBitRate)
{
    std::optional<uint32_t> smallest;
    for (const ReporterView& reporter : reporters) {
        if (reporter.state != ReporterState::Live || reporter.report->windowMs < 0)
            continue;
        const uint32_t budget
            = RequestBudgetBytes(static_cast<uint32_t>(reporter.report->windowMs), grossBitRate);
        smallest = std::min(smallest.value_or(budget), budget);
    }
    return smallest.value_or(RequestBudgetBytes(USUAL_WINDOW_MS, grossBitRate));
}

} // namespace arqctl
