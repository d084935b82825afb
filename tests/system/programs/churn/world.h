#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <random>
#include <vector>

#include "clock.h"
#include "control_line.h"
#include "source.h"

// What happened, for the summary.
struct Tally {
    uint64_t datagrams;
    uint64_t firstSendings;
    uint64_t resends;
    uint64_t echoes;
    uint64_t stopMessages;
    uint64_t pings;
    uint64_t joins;
    uint64_t stops;
    uint64_t deletes;
    uint64_t moves;
    uint64_t expiries;
    uint64_t adds;
    uint64_t requests;
    uint64_t lostOnPurpose;
    uint64_t blocks;
};

// Says that something went wrong; the first ones are printed.
void Fault(const char* format, ...) __attribute__((format(printf, 1, 2)));
uint64_t Faults();

// What all receivers of the run share. Threads: main only.
class World {
public:
    static constexpr uint64_t MOST_IN_BATCH = 32; // packets that the proxy sends together

    // What the proxy listens on.
    struct Ports {
        sockaddr_in ping;
        sockaddr_in request;
    };

    World(const Ports& where, Source& input, ControlLine& commands, unsigned seed)
        : ports(where),
          source(input),
          control(commands),
          m_random(seed)
    {
    }

    // Evenly from 0 to below `limit`.
    uint32_t Draw(uint32_t limit) { return static_cast<uint32_t>(m_random() % limit); }
    bool OneIn(uint32_t count) { return Draw(count) == 0; }
    double DrawSeconds(double from, double to) { return from + (to - from) * Draw(1000) / 1000.0; }

    // The proxy stamps a packet once, so whoever gets it gets the same stamp.
    void CheckStamp(uint64_t number, uint32_t timestamp);

    // Datagrams for the ping port go by this count, so that they never overflow its socket: who may not, waits.
    bool MayPing() const { return m_nPings < m_nHandledPings + MOST_PINGS; }
    void CountPing() { ++m_nPings; }
    uint64_t Pings() const { return m_nPings; }
    void HandledPings(uint64_t count) { m_nHandledPings = count; }

    // All that was sent to the proxy's input up to here has been sent on to everybody: what one receiver has may be
    // of a batch that the next one gets later.
    uint64_t FannedOut() const
    {
        const uint64_t confirmed = source.Confirmed();
        return confirmed > MOST_IN_BATCH ? confirmed - MOST_IN_BATCH : 0;
    }

    const Ports ports;
    Source& source;
    ControlLine& control;
    Tally tally {};
    uint64_t acceptedPackets = 0; // as the proxy counts them
    int32_t wanted = 0; // how many of the receivers that come and go may be there
    double longestStaySeconds = 0; // of who comes and goes
    int32_t deletesOpen = 0;
    bool isBlocked = false; // by the destination that takes nothing

private:
    static constexpr uint64_t MOST_PINGS = 150; // what a socket of the usual size takes
    static constexpr size_t STAMPS = 65536;
    struct Stamp {
        uint64_t number;
        uint32_t timestamp;
    };

    std::mt19937 m_random;
    std::vector<Stamp> m_stamps = std::vector<Stamp>(STAMPS);
    uint64_t m_nPings = 0;
    uint64_t m_nHandledPings = 0;
};
