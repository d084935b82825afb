#pragma once

#include "arqlink/relay/figures.h"
#include "arqlink/relay/relay.h"

#include <cstdint>
#include <string>
#include <vector>

namespace arqlink {

// What the program prints: lines for people, or one JSON object a line. All on standard output, failures on standard
// error. Operations return false if standard output takes no more.
class Report {
public:
    Report(bool bJson, bool bQuiet) : m_bJson(bJson), m_bQuiet(bQuiet) {}

    // The addresses are open.
    bool Ready(
        const std::vector<Pair>& pairs, const std::vector<common::Endpoint>& listening, const Relay& relay);
    // The line has changed.
    bool Changed(double seconds, const Relay& relay);
    bool News(double seconds, const ClientNews& news);
    // For people what came since the last line, in JSON what came since the start.
    bool Line(double seconds, const Figures& figures, const Relay& relay);
    bool Final(double seconds, const Figures& figures, const Relay& relay);
    // What went wrong, as a sentence without its full stop; in JSON {"error": ...} on standard output.
    void Failure(const std::string& problem, bool bUsage) const;

private:
    bool Print(const std::string& line) const;

    bool m_bJson;
    bool m_bQuiet;
    Figures m_last;
};

} // namespace arqlink
