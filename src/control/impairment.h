#pragma once

#include <cstdint>

#include "base/plain_word.h"

// Deliberate loss for testing links and receivers: input packets are withheld in bursts, with gaps
// between them. Withheld packets are still stored for retransmission.
//
// Threads: the control thread switches and configures, the sending threads run the gate. The words are
// shared without a lock: a switch while packets flow may let one packet see a mixture.

// Bounds of a burst or of a gap, in packets, and what is left of the current one.
struct ImpairmentRange {
    PlainWord<int32_t> m_min;
    PlainWord<int32_t> m_max;
    PlainWord<int32_t> m_range; // m_max + 1 - m_min; not checked, may be 0 or less
    PlainWord<int32_t> m_value; // packets still to come
};

// Modes of the gate; every other value behaves as off.
constexpr int32_t IMPAIRMENT_OFF = 0;
constexpr int32_t IMPAIRMENT_FIXED = 1; // bursts of m_min, gaps of m_min
constexpr int32_t IMPAIRMENT_RANDOM = 2; // gaps drawn between m_min and m_max

struct Impairment {
    PlainWord<int32_t> m_mode;
    ImpairmentRange m_burst; // packets withheld in a row
    ImpairmentRange m_dist; // packets passed between two bursts
};

// Switched off, with the counters of a fresh replicator.
void InitImpairment(Impairment& impair);

// Settings of one switching on, as read from the settings file; unchecked.
struct ImpairmentSettings {
    int32_t minDrop = 1;
    int32_t minDist = 100;
    int32_t maxDrop = 10;
    int32_t maxDist = 200;
    int32_t mode = IMPAIRMENT_FIXED;
};

// Stores the settings and arms the first burst and gap.
void ConfigureImpairment(Impairment& impair, const ImpairmentSettings& settings);

// Counts one input packet against the gate. True when the packet is to be withheld.
bool StepImpairment(Impairment& impair);

// Starts the next burst and gap.
void ReArm(Impairment& impair);

// The draws of IMPAIRMENT_RANDOM from one result of rand(). A burst is drawn in 32 bits that wrap on
// purpose: it is almost always m_min packets long. A gap is drawn evenly in 64 bits.
int32_t DrawBurst(int32_t min, int32_t range, int32_t random);
int32_t DrawDistance(int32_t min, int32_t range, int32_t random);
