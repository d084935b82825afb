#pragma once

#include <string>

#include "arqrx/program/report.h"

namespace arqrx {

// Figures for programs: one JSON object a line. What is not known is left out; the last object has "final": true.
class JsonReport : public Report {
public:
    // `stream` as the operator named it.
    JsonReport(std::string stream, bool isQuiet);

    std::string Interval(const Sample& now, int64_t wallSeconds) override;
    std::string Last(const Sample& last, const RunEnd& end, int64_t wallSeconds) override;

private:
    const std::string m_stream;
    const bool m_bQuiet; // the last object only
    Sample m_before;
};

// What ended the program before it began, as an object of one line.
std::string JsonError(const std::string& why, ExitStatus status);

} // namespace arqrx
