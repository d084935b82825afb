#pragma once

#include <cstdint>
#include <vector>

// The value below which the fraction `part` (0 to 1) of the values lies; 0 without values.
double Percentile(std::vector<double> values, double part);

inline double Median(std::vector<double> values)
{
    return Percentile(static_cast<std::vector<double>&&>(values), 0.5);
}

// One measured quantity of both sides, one entry a paired round.
struct PairedFigures {
    std::vector<double> baseline;
    std::vector<double> measured;

    // The median over the rounds of measured / baseline, each round compared with itself only.
    double MedianRatio() const;

    // The lowest and the highest of these ratios: how noisy the machine was.
    double LowestRatio() const;
    double HighestRatio() const;

private:
    std::vector<double> Ratios() const;
};

// Wall-clock nanoseconds, the clock of the kernel's arrival stamps.
int64_t WallNs();
