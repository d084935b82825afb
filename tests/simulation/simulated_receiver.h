#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "simulation/checker.h"
#include "simulation/config.h"
#include "simulation/machine.h"
#include "simulation/network.h"
#include "simulation/stream_book.h"

namespace simulation {

// What receivers that play out have counted, in packets where nothing else is said.
struct PlayedTotals {
    uint64_t received = 0; // media datagrams, those sent again and doubles included
    uint64_t resends = 0; // of these
    uint64_t played = 0;
    uint64_t missing = 0; // missing = recovered + lost, and whatever waits when a run is cut off
    uint64_t recovered = 0;
    uint64_t lost = 0;
    uint64_t requests = 0; // datagrams
    uint64_t numbersAsked = 0;
    uint64_t restarts = 0; // of play-out
    uint64_t steps = 0; // of the proxy's clock that one restart each has answered
    uint64_t disbelieved = 0; // media that were taken for none of the stream's
    uint64_t lives = 0; // a program that was ended and started again has two

    void Add(const PlayedTotals& other)
    {
        received += other.received;
        resends += other.resends;
        played += other.played;
        missing += other.missing;
        recovered += other.recovered;
        lost += other.lost;
        requests += other.requests;
        numbersAsked += other.numbersAsked;
        restarts += other.restarts;
        steps += other.steps;
        disbelieved += other.disbelieved;
        lives += other.lives;
    }
};

// A receiver as the world knows it: while there are faults it may have bad habits, in the calm it has none, then it
// pings no more.
class SimulatedReceiver {
public:
    SimulatedReceiver() = default;
    SimulatedReceiver(const SimulatedReceiver&) = delete;
    SimulatedReceiver& operator=(const SimulatedReceiver&) = delete;
    virtual ~SimulatedReceiver() = default;

    virtual void Start() = 0;
    virtual void BeginCalm() = 0;
    // What it missed must be there by now, or have been refused for a reason.
    virtual void CheckNothingMissing() const = 0;
    virtual void FallSilent() = 0;
    // So long after its last ping nothing may be left for it to do.
    virtual void CheckSilent() const {}

    virtual void OnArrival(const Delivery& delivery) = 0;
    virtual void TellVerdict(uint16_t seq, EngineModel::Verdict verdict) = 0;
    virtual void TellSource(uint16_t /*seq*/, const std::vector<uint8_t>& /*bytes*/) {}
    virtual void OnClockStep(int64_t /*byUs*/) {}

    virtual uint64_t Recovered() const = 0;
    virtual PlayedTotals Played() const { return {}; }
};

// The receiver of tools/arqrx, where it is built (arqrx_receiver.cpp); nobody asks for one otherwise.
bool HasArqrx();
std::unique_ptr<SimulatedReceiver> MakeArqrxReceiver(
    Machine& machine, const Config& config, const ReceiverIdentity& identity, Network& network);

} // namespace simulation
