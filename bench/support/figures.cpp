#include "figures.h"

#include <algorithm>
#include <cmath>
#include <ctime>

double Percentile(std::vector<double> values, double part)
{
    if (values.empty())
        return 0;
    const auto last = static_cast<double>(values.size() - 1);
    const auto place = static_cast<std::ptrdiff_t>(std::llround(part * last));
    std::nth_element(values.begin(), values.begin() + place, values.end());
    return values[static_cast<size_t>(place)];
}

std::vector<double> PairedFigures::Ratios() const
{
    std::vector<double> ratios;
    for (size_t i = 0; i < std::min(baseline.size(), measured.size()); ++i)
        ratios.push_back(measured[i] / baseline[i]);
    return ratios;
}

double PairedFigures::MedianRatio() const
{
    return Median(Ratios());
}

double PairedFigures::LowestRatio() const
{
    return Percentile(Ratios(), 0);
}

double PairedFigures::HighestRatio() const
{
    return Percentile(Ratios(), 1);
}

int64_t WallNs()
{
    timespec now {};
    (void)clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}
