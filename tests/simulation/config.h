#pragma once

#include <cstdint>
#include <cstdio>

#include "simulation/machine.h"

namespace simulation {

// Faults of one direction of one link, all of which may be absent.
struct LinkFaults {
    int64_t lossPermille = 0;
    int64_t burstPermille = 0; // of the datagrams begin a burst of loss
    int64_t burstLength = 0; // datagrams that it takes, on average
    int64_t jitterUs = 0; // added to the delay of each datagram for itself, so that they overtake each other
    int64_t doublePermille = 0;
};

// What a seed is about: drawn first and printed, before anything happens.
struct Config {
    enum class Kind { Short, Dense, Wide, Sparse, Days };

    explicit Config(uint64_t seed);
    // Nothing is drawn but what happens later: no faults, no receivers, no input.
    static Config Plain(uint64_t seed) { return { seed, Kind::Short }; }
    void Print(FILE* stream) const;

    uint64_t seed;
    Kind kind = Kind::Short;

    // The proxy's command line.
    bool udpInputMode = false; // -u
    int64_t pacingBitRate = 0; // -X, bit/s; 0: none
    int32_t ringSize = 4096; // -q
    int32_t grossMediaBitrate = 0; // bounds resends, bit/s

    // Receivers. Of those that ping, every second one has a stream ID.
    int32_t configured = 0;
    int32_t learnt = 0;
    bool sharesAddresses = false; // receivers with an ID stand two behind one address
    int64_t silentPermille = 0; // of the looks at itself, a second apart, begin a silence
    int64_t movePermille = 0; // likewise: its port changes
    int64_t leavePermille = 0; // likewise: it says that it leaves
    int64_t greedyPermille = 0; // likewise: it asks for numbers at random, or the same ones twice
    int64_t noisePermille = 0; // likewise: something that is no proper request
    int64_t arqrxPermille = 0; // of the receivers are those of tools/arqrx
    int64_t arqrxLatencyUs = 0; // of each of these; 0: it draws its settings
    uint64_t datagramBudget = 1000000; // some 100,000 are drawn for, and a resend may be drawn often

    // Input.
    int64_t packetGapUs = 0; // on average
    int64_t smallestPayload = 0;
    int64_t largestPayload = 0;
    int64_t equalPermille = 0; // of the packets are as long as the one before
    int64_t inputLossPermille = 0;
    int64_t inputRepeatPermille = 0;
    uint16_t firstSeq = 0;
    int64_t stopsPermille = 0; // of the packets: the input pauses behind one
    int64_t burstPermille = 0; // of the packets begin a burst
    int64_t longestBurst = 1; // packets that come at once

    // Links.
    int64_t delayUs = 0; // the shortest, one way
    LinkFaults downlink;
    LinkFaults uplink;
    int64_t refusedPermille = 0; // of the sends fail with an error
    int64_t refusedTrainPermille = 0; // of the trains do so
    int64_t fullPermille = 0; // of the sends that must not wait would have to
    int64_t answeredPermille = 0; // of the sends from connected sockets have an answer that they failed
    int64_t routePermille = 0; // of the seconds bring another source address, or none and no way
    int64_t mtuBytes = 1500;
    bool isOldKernel = false; // says something else to trains of pieces that are too long

    // Machine and clocks.
    Machine::Faults machine;
    int64_t steadyStartUs = 0;
    int64_t wallStartUs = 0;
    int32_t clockSteps = 0;
    int64_t largestStepUs = 0;

    // Operator.
    int64_t commandGapUs = 0; // 0: none
    bool switchesImpairment = false;

    // Lengths of the phases: faults, calm with input, calm in which receivers get what they missed, silence
    // without a ping.
    int64_t faultsUs = 0;
    int64_t calmUs = 0;
    static constexpr int64_t DRAIN_US = 4000000;
    static constexpr int64_t SILENCE_US = 12000000;
    int64_t InputEndUs() const { return faultsUs + calmUs; } // the last packet may be one gap later
    int64_t CalmEndUs() const { return InputEndUs() + 2 * packetGapUs + DRAIN_US; }
    int64_t EndUs() const { return CalmEndUs() + SILENCE_US; }

    int32_t Receivers() const { return configured + learnt; }

private:
    Config(uint64_t seedNumber, Kind shape) : seed(seedNumber), kind(shape) {}

    void DrawShape(Random& random);
    void DrawLoad(Random& random);
    void DrawReceivers(Random& random);
    void DrawFaults(Random& random);
    void DrawClocks(Random& random);
    void DrawTrains(Random& random);
    void DrawArqrx();
};

} // namespace simulation
