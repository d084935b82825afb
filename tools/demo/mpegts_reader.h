#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <vector>

#include "demo/mpegts.h"

namespace demo {

// Takes a transport stream apart: finds the programme's first stream by the tables, follows the continuity counters,
// gives out the data of each whole PES packet. Anything may come in; what does not fit is dropped.
class MpegTsReader {
public:
    // Any number of whole packets, a datagram for example. The PES packets that they complete.
    std::vector<std::vector<uint8_t>> OnPackets(std::span<const uint8_t> packets);

    // Counters that did not follow their predecessor; the one after a gap counts once.
    uint64_t ContinuityErrors() const { return m_ulErrors; }

private:
    struct Packet; // its header's fields, and what it carries

    void OnPacket(const Packet& packet);
    bool Follows(const Packet& packet); // and remembers
    void OnTable(const Packet& packet);
    void OnStream(const Packet& packet);

    std::map<uint16_t, uint8_t> m_counters; // of each PID, the last one
    std::optional<uint16_t> m_mapPid;
    std::optional<uint16_t> m_streamPid;
    std::vector<uint8_t> m_pes; // begun and not yet whole; empty: waiting for a beginning
    std::vector<std::vector<uint8_t>> m_whole;
    uint64_t m_ulErrors = 0;
};

} // namespace demo
