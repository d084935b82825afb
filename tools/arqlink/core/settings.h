#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace arqlink {

// Loss in bursts after Gilbert and Elliott: the line is in a good or a bad state and may change with each packet. The
// mean length of a bad time is 1 / leave packets. All four are ratios from 0 to 1.
struct Burst {
    double enter = 0; // from good to bad, a packet
    double leave = 1; // from bad to good, a packet
    double lossBad = 1;
    double lossGood = 0;

    bool operator==(const Burst&) const = default;
    bool IsOn() const { return enter > 0 || lossGood > 0; }
};

// RTP sequence numbers that are lost the first `times` times that each comes. The range may go over the wrap: 65534 to
// 1 are four numbers.
struct SequenceRange {
    uint16_t first = 0;
    uint16_t last = 0;
    uint32_t times = 1;

    bool operator==(const SequenceRange&) const = default;
    bool Holds(uint16_t number) const
    {
        return static_cast<uint16_t>(number - first) <= static_cast<uint16_t>(last - first);
    }
};

// One direction of a line. As it is made it does nothing to a packet.
struct Settings {
    bool blackout = false; // everything is lost
    double loss = 0; // 0 to 1, each packet by itself
    Burst burst;
    std::vector<SequenceRange> dropped;
    int64_t delayUs = 0;
    int64_t jitterUs = 0; // evenly from 0 to this much on top of the delay
    double reorder = 0; // the part of the packets that leave at their own time; the others keep their order
    double duplicate = 0; // the part of the packets that come twice
    double corrupt = 0; // the part of the packets in which one to four bytes are changed
    int64_t rateBits = 0; // bits a second of UDP payload; 0: no limit
    int64_t queueUs = 100'000; // how long a packet may wait for a limited line; not used if queueBytes is set
    int64_t queueBytes = 0; // how much may wait for a limited line; 0: queueUs counts

    bool operator==(const Settings&) const = default;
};

} // namespace arqlink
