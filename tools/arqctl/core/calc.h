#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "arqctl/core/repair_model.h"

namespace arqctl {

// What an operator knows of a stream and its line, and wants of it.
struct CalcInput {
    int64_t bitRate = 0; // of the payload, without RTP header; bit/s, above 0
    int64_t payloadBytes = 1316; // of a packet: seven packets of a transport stream
    double lossDown = 0; // share of what the proxy sends, 0 to MOST_LOSS
    double lossUp = 0; // share of what receivers send
    int64_t roundTripUs = 0;
    int64_t receivers = 1;
    int64_t outageUs = 0; // the longest that shall do no harm; 0: losses are single
    int64_t holdOffUs = 100'000; // not below the proxy's
    int64_t latencyUs = 0; // as given; 0: as long as the target needs
    double targetLoss = 1e-6; // of all packets, above 0
};

constexpr double MOST_LOSS = 0.5; // nobody watches what is left of more
constexpr int64_t LEAST_LATENCY_US = 10'000; // what arqrx takes
constexpr int64_t MOST_LATENCY_US = 60'000'000;
constexpr int64_t MOST_RECEIVERS = 50; // of an instance
constexpr int64_t LARGEST_RING = 65'536; // packets have 16-bit numbers

// What goes one way through one kind of port. Bytes are those of IP, the headers of IP and UDP included.
struct CalcFlow {
    double packetRate = 0; // a second
    double bitRate = 0;
};

// All for one receiver; a proxy has as many times as much.
struct CalcFlows {
    CalcFlow media; // out, first sendings
    CalcFlow resends; // out
    CalcFlow requests; // in; at most, when each asks for one packet
    CalcFlow pings; // in, on the ping port
    CalcFlow echoes; // in on the request port, and back
};

// One thing that has an end.
struct CalcLimit {
    std::string name;
    bool isHeld = true;
    std::string text; // how it stands
    std::string advice; // what to do; empty while it is held
};

struct CalcResult {
    double packetRate = 0; // of the stream, a second
    int64_t latencyUs = 0;
    bool isTargetReached = false; // where no latency was given
    Repair random; // of single losses
    double tryFails = 0; // share
    double outagePackets = 0; // 0: no outage was asked about
    Repair outage;
    int64_t ringNeeded = 0; // packets
    int64_t ringPackets = 0; // -q
    int64_t grossBitRate = 0; // -G
    int64_t windowMs = 0; // how old a packet may be to be sent again
    int64_t budgetMs = 0; // of these, what the budget is reckoned from
    int64_t budgetBytes = 0; // of one request
    int64_t requestNumbers = 0; // that one request may have
    CalcFlows flows;
    std::vector<CalcLimit> limits;

    bool IsHeld() const;
};

// Pure arithmetic; the assumptions stand in docs/arqctl.md, "Calc".
CalcResult Calculate(const CalcInput& input);

// What the results come to, in the order in which an operator would look at them.
std::vector<CalcLimit> CalcLimits(const CalcInput& input, const CalcResult& result);

} // namespace arqctl
