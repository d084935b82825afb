#pragma once

#include <cstdint>

#include "arqctl/core/statistics.h"

namespace arqctl {

enum class LossState { Unknown, Off, On };

// Why it cannot be known whether packets are withheld.
enum class LossDoubt {
    None,
    NoReceiver, // nothing is sent that could be missing
    NoInput,
    TooFew, // fewer packets came than pass between two bursts
    Busy, // the proxy was never seen at rest between two packets
    MayBeGroup // it sends once for each packet, and whether to a group is not known
};

struct LossFinding {
    LossState state = LossState::Unknown;
    LossDoubt doubt = LossDoubt::NoInput;
    uint64_t packets = 0; // of the input that were looked at
    uint64_t withheld = 0; // of these, as far as they were seen before they were sent again
};

// Tells by its counts whether a proxy withholds packets on purpose: of each packet as many datagrams leave as it has
// receivers, resends come on top, and so what was sent falls behind only by what is withheld. A receiver soon fetches what
// is withheld, and then nothing is missing in the end: so it takes answers in short turns, and only such as were got while
// the proxy rested between two packets, with nothing under way.
class LossWatch {
public:
    // `periodPackets`: the most from one burst to the next by the settings.
    explicit LossWatch(uint64_t periodPackets) : m_nPeriod(periodPackets) {}

    // Any answer: whether there is input.
    void See(const Statistics& statistics, int64_t nowUs);
    // An answer of a proxy at rest. `fanOut` as in meter.h.
    void TakeAtRest(const Statistics& statistics, int fanOut);

    // What is known so far; `isLast`: there will be no more, so less is enough.
    LossFinding Judge(int64_t nowUs, bool isLast) const;

private:
    LossDoubt Doubt(int64_t nowUs, bool isLast) const;

    const uint64_t m_nPeriod;
    uint64_t m_nSeen = 0; // RECV_PACKETS of the last answer
    int64_t m_inputUs = -1; // when it last changed; -1: no answer yet
    Statistics m_before; // of the last one at rest
    int m_nEach = -1; // datagrams a packet, with it; -1: none yet
    uint64_t m_nPackets = 0;
    uint64_t m_nSent = 0;
    uint64_t m_nWithheld = 0;
    uint64_t m_nBursts = 0;
    bool m_isFanOutKnown = false;
};

} // namespace arqctl
