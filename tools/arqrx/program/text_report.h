#pragma once

#include "arqrx/program/report.h"

namespace arqrx {

// Figures for people: a line an interval that fits 80 columns, with its head again every 20 lines, and totals at the end.
class TextReport : public Report {
public:
    explicit TextReport(const Options& options);

    std::string Interval(const Sample& now, int64_t wallSeconds) override;
    std::string Last(const Sample& last, const RunEnd& end, int64_t wallSeconds) override;

private:
    const bool m_bQuiet; // the totals only
    const bool m_bPinging;
    Sample m_before;
    int m_nLines = 0; // since the head
};

// What people should know at once, as sentences: what has changed between two samples.
std::string News(const Sample& before, const Sample& now);

} // namespace arqrx
