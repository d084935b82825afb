#include <algorithm>
#include <cmath>
#include <cstdio>

#include "bench.h"
#include "entries.h"
#include "field.h"

namespace {

constexpr int32_t COUNTS[] = { 1, 10, 25, 50 };
constexpr size_t NUMBER = std::size(COUNTS);

// Processor time of one packet against the number of receivers, as a straight line.
struct Line {
    double slopeNs; // for each receiver
    double atZeroNs;
    double farthest; // the largest distance of a point from the line, as a part of the last point
};

// `lanes` points from `first` on, of round `round`.
Line Fit(const std::vector<Lane>& lanes, size_t first, size_t round)
{
    double meanCount = 0;
    double meanCost = 0;
    double cost[NUMBER];
    for (size_t i = 0; i < NUMBER; ++i) {
        cost[i] = lanes[first + i].cpuNs[round] * COUNTS[i];
        meanCount += COUNTS[i] / static_cast<double>(NUMBER);
        meanCost += cost[i] / static_cast<double>(NUMBER);
    }
    double products = 0;
    double squares = 0;
    for (size_t i = 0; i < NUMBER; ++i) {
        products += (COUNTS[i] - meanCount) * (cost[i] - meanCost);
        squares += (COUNTS[i] - meanCount) * (COUNTS[i] - meanCount);
    }
    Line line { products / squares, 0, 0 };
    line.atZeroNs = meanCost - line.slopeNs * meanCount;
    for (size_t i = 0; i < NUMBER; ++i)
        line.farthest = std::max(
            line.farthest, std::abs(line.atZeroNs + line.slopeNs * COUNTS[i] - cost[i]) / cost[NUMBER - 1]);
    return line;
}

struct Growth {
    PairedFigures slopes;
    std::vector<double> atZeroUs;
    std::vector<double> farthest;
};

Growth FitRounds(const std::vector<Lane>& lanes, size_t first)
{
    constexpr double NS_PER_US = 1000;
    Growth growth;
    for (size_t round = 0; round < lanes[first].cpuNs.size(); ++round) {
        const Line line = Fit(lanes, first, round);
        growth.slopes.baseline.push_back(Fit(lanes, 0, round).slopeNs / NS_PER_US);
        growth.slopes.measured.push_back(line.slopeNs / NS_PER_US);
        growth.atZeroUs.push_back(line.atZeroNs / NS_PER_US);
        growth.farthest.push_back(line.farthest);
    }
    return growth;
}

} // namespace

void MeasureGrowth(Bench& bench)
{
    constexpr double BOUND = 0.9;
    constexpr double PERCENT = 100;
    std::vector<Entry> entries { BareLoop() };
    for (const Entry& entry : Proxies(bench.settings))
        entries.push_back(entry);
    Field field(bench.settings, bench.outlet);
    for (const Entry& entry : entries) {
        for (const int32_t count : COUNTS)
            field.Add(entry, count, 1);
    }
    printf(
        "\nGrowth: CPU of one packet against N = 1, 10, 25, 50, %d datagrams/s evenly, as a straight line\n"
        "  %-44s   a receiver   ratio                   at N=0   farthest point\n",
        bench.settings.perSecond, "");
    field.MeasureCpu();
    for (size_t i = 0; i < entries.size(); ++i) {
        const Growth growth = FitRounds(field.Lanes(), i * NUMBER);
        const PairedFigures& slopes = growth.slopes;
        printf("  %-44s %9.2f us %7.2f  (%.2f to %.2f) %8.2f us %8.1f %%\n", entries[i].name.c_str(),
            Median(slopes.measured), slopes.MedianRatio(), slopes.LowestRatio(), slopes.HighestRatio(),
            Median(growth.atZeroUs), PERCENT * Median(growth.farthest));
        if (i != 0)
            bench.targets.Add("growth with N, " + entries[i].name, Targets::Kind::AT_MOST, BOUND, slopes);
    }
    printf("%s\n", field.Report().c_str());
}
