#include "targets.h"

#include <cstdio>

void Targets::Add(const std::string& condition, Kind kind, double bound, const PairedFigures& figures)
{
    char spread[64];
    (void)snprintf(spread, sizeof(spread), "(%.2f to %.2f)", figures.LowestRatio(), figures.HighestRatio());
    m_rows.push_back({ condition, kind, bound, figures.MedianRatio(), spread });
}

void Targets::Add(const std::string& condition, Kind kind, double bound, double value)
{
    m_rows.push_back({ condition, kind, bound, value, "" });
}

void Targets::Print() const
{
    if (m_rows.empty())
        return;
    printf("\nBounds                                                              bound  measured\n");
    for (const Row& row : m_rows) {
        const bool isKept = row.kind == Kind::AT_MOST ? row.value <= row.bound : row.value >= row.bound;
        printf("  %-58s %s %5.2f %9.2f  ", row.condition.c_str(),
            row.kind == Kind::AT_MOST ? "<=" : ">=", row.bound, row.value);
        if (row.spread.empty())
            printf("%s\n", isKept ? "kept" : "MISSED");
        else
            printf("%-6s  %s\n", isKept ? "kept" : "MISSED", row.spread.c_str());
    }
}
