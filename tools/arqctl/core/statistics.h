#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace arqctl {

// What a proxy says of itself in its answer to AllStats. Packets are 64-bit counts since the start or the last reset;
// the others are 32-bit words that the proxy prints with a sign, taken here for what they stand for.
struct Statistics {
    uint64_t receivedPackets = 0;
    uint32_t receivedBitRate = 0; // bit/s of the last full second, RTP headers included; wraps at 2^32
    uint32_t receivedLoss = 0; // numbers missing from the input; wraps at 2^32
    uint64_t sentPackets = 0; // to all receivers, resends and answered pings included
    uint32_t sentBitRate = 0; // as receivedBitRate
    std::vector<std::string> receivers; // addresses in the proxy's order; one may stand more than once

    bool operator==(const Statistics&) const = default;
};

} // namespace arqctl
