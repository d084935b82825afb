#include "arqctl/top/recent_history.h"

#include <algorithm>

#include "common/clock.h"

namespace arqctl::top {

PlotSample SampleOf(const Reading& reading)
{
    return { static_cast<double>(reading.statistics.receivedBitRate),
        static_cast<double>(reading.statistics.sentBitRate), reading.rates.lost, reading.rates.sentBeyond,
        reading.rates.withheld };
}

RecentHistory::RecentHistory() : m_slots(static_cast<size_t>(SECONDS)) {}

void RecentHistory::Take(const PlotSample& sample, int64_t nowUs)
{
    const int64_t second = nowUs / common::US_PER_SECOND;
    const bool isNext = m_nLast >= 0 && second - m_nLast <= LONGEST_STEP_S;
    for (int64_t at = isNext ? m_nLast + 1 : second; at <= second; ++at)
        Set(at, sample);
    if (second == m_nLast)
        Set(second, sample); // the newer answer of a second counts
    m_nLast = second;
}

void RecentHistory::Set(int64_t second, const PlotSample& sample)
{
    m_slots[static_cast<size_t>(second % SECONDS)] = { second, sample };
}

const RecentHistory::Slot& RecentHistory::SlotOf(int64_t second) const
{
    return m_slots[static_cast<size_t>(second % SECONDS)];
}

std::optional<double> RecentHistory::Over(PlotSeries series, int64_t fromSecond, int64_t count) const
{
    double sum = 0, most = 0;
    int known = 0;
    for (int64_t second = std::max<int64_t>(fromSecond, 0); second < fromSecond + count; ++second) {
        if (SlotOf(second).second != second)
            continue;
        const double value = SlotOf(second).sample[static_cast<size_t>(series)];
        sum += value;
        most = std::max(most, value);
        ++known;
    }
    if (known == 0)
        return std::nullopt;
    return series == PlotSeries::Input || series == PlotSeries::Output ? sum / known : most;
}

} // namespace arqctl::top
