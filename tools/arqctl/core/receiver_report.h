#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace arqctl {

// What a receiver says of itself once a second (arqrx --report). Counts are packets since its start, where nothing else
// is said; a reading below 0 is not known.
struct ReceiverReport {
    static constexpr size_t LONGEST_NAME = 64; // bytes
    static constexpr size_t LONGEST_TEXT = 128;

    std::string name;
    std::string channel; // of Target::Name(); empty: found by the address that the report comes from
    std::string stream; // as named on the receiver's command line
    std::string proxy; // ADDRESS:PORT; empty: none
    uint64_t received = 0;
    uint64_t resent = 0;
    uint64_t missing = 0;
    uint64_t recovered = 0;
    uint64_t lost = 0;
    uint64_t waiting = 0; // of now
    uint64_t duplicate = 0;
    uint64_t late = 0;
    uint64_t requests = 0; // datagrams
    uint64_t numbersAsked = 0;
    uint64_t mostAsked = 0; // packets named in the largest request of the last second
    double runS = -1;
    double silentS = -1;
    double windowMs = -1; // that the proxy's budget covers for this receiver's requests
    double latencyMs = -1;
    double bufferMs = -1;
    double roundTripMs = -1;
    double jitterMs = -1;
    double packetBytes = -1; // mean of the last second
    double bitRate = -1; // bit/s
    bool isFinal = false;

    bool operator==(const ReceiverReport&) const = default;
};

// The fields by their names in a report and in the API, in one place for reading and writing. A count is in every report
// and a whole number up to MOST_COUNT; a reading is any number from 0 to `most`, and only run_s is in every report.
struct ReportCount {
    const char* name;
    uint64_t ReceiverReport::*count;
};
struct ReportReading {
    const char* name;
    double ReceiverReport::*value;
    double most;
};

constexpr uint64_t MOST_COUNT = uint64_t { 1 } << 53; // whole in every language's numbers
inline constexpr std::array REPORT_COUNTS {
    ReportCount { "packets_received", &ReceiverReport::received },
    ReportCount { "packets_resent", &ReceiverReport::resent },
    ReportCount { "packets_missing", &ReceiverReport::missing },
    ReportCount { "packets_recovered", &ReceiverReport::recovered },
    ReportCount { "packets_lost", &ReceiverReport::lost },
    ReportCount { "packets_waiting", &ReceiverReport::waiting },
    ReportCount { "packets_duplicate", &ReceiverReport::duplicate },
    ReportCount { "packets_late", &ReceiverReport::late },
    ReportCount { "requests", &ReceiverReport::requests },
    ReportCount { "numbers_asked", &ReceiverReport::numbersAsked },
    ReportCount { "most_asked", &ReceiverReport::mostAsked },
};
inline constexpr std::array REPORT_READINGS {
    ReportReading { "run_s", &ReceiverReport::runS, 1e10 },
    ReportReading { "silent_s", &ReceiverReport::silentS, 1e10 },
    ReportReading { "window_ms", &ReceiverReport::windowMs, 4294967295.0 },
    ReportReading { "latency_ms", &ReceiverReport::latencyMs, 1e9 },
    ReportReading { "buffer_ms", &ReceiverReport::bufferMs, 1e9 },
    ReportReading { "round_trip_ms", &ReceiverReport::roundTripMs, 1e9 },
    ReportReading { "jitter_ms", &ReceiverReport::jitterMs, 1e9 },
    ReportReading { "packet_bytes", &ReceiverReport::packetBytes, 65535 },
    ReportReading { "bit_rate", &ReceiverReport::bitRate, 1e13 },
};

} // namespace arqctl
