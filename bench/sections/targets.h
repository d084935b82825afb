#pragma once

#include <string>
#include <vector>

#include "../support/figures.h"

// The last table: every figure that has a bound, beside it.
class Targets {
public:
    enum class Kind { AT_MOST, AT_LEAST };

    // A ratio with its spread over the rounds.
    void Add(const std::string& condition, Kind kind, double bound, const PairedFigures& figures);

    // A figure without a spread.
    void Add(const std::string& condition, Kind kind, double bound, double value);

    void Print() const;

private:
    struct Row {
        std::string condition;
        Kind kind;
        double bound;
        double value;
        std::string spread;
    };
    std::vector<Row> m_rows;
};
