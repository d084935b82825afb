#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "../support/contender.h"
#include "../support/feed.h"
#include "../support/figures.h"
#include "../support/outlet.h"
#include "rounds.h"
#include "settings.h"

// One contender with its feed and what its rounds gave.
struct Lane {
    std::unique_ptr<Contender> contender;
    std::unique_ptr<Feed> feed;
    std::vector<double> cpuNs; // per delivered datagram, one entry a round
    int64_t lost = 0;
};

// Contenders that run side by side through all rounds of one table; one is fed at a time. The first is the
// one that the others are compared with.
class Field {
public:
    Field(const Settings& settings, Outlet& outlet) : m_settings(settings), m_outlet(outlet) {}

    // Starts it. `burst` datagrams at a time, at the settings' mean rate.
    void Add(const Entry& entry, int32_t nReceivers, int burst);

    // Takes all rounds. Gives up when a contender dies or delivers nothing.
    void MeasureCpu();

    // The ratios to the first lane, round by round.
    PairedFigures Ratios(const Lane& lane) const { return { m_lanes.front().cpuNs, lane.cpuNs }; }

    // A line for each lane.
    void PrintLanes() const;

    // What MeasureCpu has to say about the machine.
    const std::string& Report() const { return m_report; }

    std::vector<Lane>& Lanes() { return m_lanes; }

    // All processes of the field, for the meter of the machine's load.
    std::vector<pid_t> Pids() const;

    // To be called between two turns, every few seconds at least.
    void KeepAllKnown();

private:
    struct Turn {
        int64_t cpuNs = 0;
        int64_t sent = 0;
        int64_t delivered = 0;
    };
    std::vector<Turn> OneRound(int round);
    void TakePiece(Turn& turn, Lane& lane);
    void Record(const std::vector<Turn>& turns);

    const Settings& m_settings;
    Outlet& m_outlet;
    std::vector<Lane> m_lanes;
    std::string m_report;
};

// Waits until `delivered` datagrams more than `before` have reached the outlet, `latestNs` at most; returns
// how many more there are.
int64_t AwaitDelivery(Outlet& outlet, int64_t before, int64_t delivered, int64_t latestNs);

// Lets a proxy use each of its buffers once: the first use costs a page fault. Nothing where `entry` is no proxy.
void UseWholePool(const Entry& entry, Contender& contender);
