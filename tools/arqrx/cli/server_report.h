#pragma once

#include <nlohmann/json.hpp>

#include "arqrx/program/report.h"

namespace arqrx {

// No report is longer, so that each goes through every path in one piece.
constexpr size_t LONGEST_SERVER_REPORT = 1400; // bytes

// Figures for the server that gathers those of many receivers: each a JSON object of one datagram, without a line feed.
// The fields have the names and units of JsonReport's. Counts are since the start, so that a datagram that is lost costs
// nothing; the last one has "final": true.
class ServerReport : public Report {
public:
    // `stream` as the operator named it.
    ServerReport(const std::string& stream, const Options& options);

    std::string Interval(const Sample& now, int64_t wallSeconds) override;
    std::string Last(const Sample& last, const RunEnd& end, int64_t wallSeconds) override;

private:
    nlohmann::ordered_json Object(const Sample& now);

    const std::string m_stream;
    const ReportAddress m_server;
    const std::string m_name;
    const int64_t m_nLatencyUs;
    const uint32_t m_nWindowMs; // that the budget of our requests covers
    Sample m_before;
};

} // namespace arqrx
