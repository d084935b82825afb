#pragma once

#include <cstdint>
#include <string>

namespace arqrx {

// Where a receiver's reports go: "HOST:PORT" or "HOST:PORT/CHANNEL".
struct ReportAddress {
    std::string host; // name or dotted quad; empty: nowhere
    uint16_t port = 0;
    std::string channel; // as the server names it; empty: the server finds it by our address

    bool operator==(const ReportAddress&) const = default;
    // "HOST:PORT", for messages.
    std::string Server() const { return host + ":" + std::to_string(port); }
};

constexpr size_t LONGEST_REPORT_NAME = 64; // bytes
constexpr size_t LONGEST_REPORT_CHANNEL = 128;

// False with a sentence in `problem`. A channel may have slashes of its own: it begins behind the first.
bool ParseReportAddress(const std::string& text, ReportAddress& address, std::string& problem);

// Whether it can stand in reports: 1 to `longest` bytes without control characters.
bool IsReportText(const std::string& text, size_t longest);

// This machine's name.
std::string HostName();

} // namespace arqrx
