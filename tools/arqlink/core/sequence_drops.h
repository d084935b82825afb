#pragma once

#include "arqlink/core/settings.h"

#include <cstdint>
#include <optional>
#include <span>
#include <unordered_map>
#include <vector>

namespace arqlink {

// The RTP sequence number (RFC 3550) of a datagram, none if it is not RTP version 2. A request whose list is long may
// look like RTP: what a receiver sends has no such numbers to lose.
std::optional<uint16_t> SequenceNumber(std::span<const uint8_t> datagram);

// Loses the sequence numbers it is told, the first so many times that each comes, whether first sent or sent again.
class SequenceDrops {
public:
    // A list that differs from the one before starts all counts anew.
    void Configure(const std::vector<SequenceRange>& ranges);
    // A packet came: is it lost? It counts as one of its number's times.
    bool Drop(std::span<const uint8_t> datagram);

private:
    std::vector<SequenceRange> m_ranges;
    std::unordered_map<uint16_t, uint32_t> m_dropped; // number -> times; at most 65536 entries
};

} // namespace arqlink
