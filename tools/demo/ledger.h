#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "demo/history.h"

namespace demo {

// What one side's packets came to.
struct Tally {
    uint64_t played = 0;
    uint64_t missing = 0; // their first copy did not come
    uint64_t recovered = 0; // of these, played out all the same
    uint64_t lost = 0; // of these, not played out
    uint64_t excused = 0; // lost ones that could not be had: the line lost every try
    uint64_t wrong = 0; // played out, but not what the source sent under that number, or a second time
    uint64_t unmarked = 0; // recovered, though no copy with payload type 122 came over the wire
    std::string firstLost; // about the first one that could have been had
    std::string firstWrong;
};

// Keeps of every packet what the source sent and what happened to it on the way to both sides, and judges what is played
// out against that, byte for byte. It sees what the source gives out, what the proxy sends and what the lines do with it;
// it never asks a receiver what it believes. Threads: one.
class Ledger {
public:
    // `lengthUs`: of the run; `latencyUs`: how long after its sending a packet is still of use.
    Ledger(int64_t lengthUs, int64_t latencyUs);

    // The source sends this RTP packet.
    void OnSent(std::span<const uint8_t> datagram, int64_t nowUs);
    // The proxy sent this media packet to that side; whether the line lets it through.
    void OnFromProxy(Side side, std::span<const uint8_t> datagram, bool passed);
    // The same came out of the line.
    void OnDelivered(Side side, std::span<const uint8_t> datagram, int64_t nowUs);
    // That side sent this to the request port; whether the line lets it through.
    void OnRequest(Side side, std::span<const uint8_t> datagram, bool passed);
    // That side plays this out.
    void OnPlayed(Side side, std::span<const uint8_t> datagram);
    // Nothing more will be played out: whatever was not is lost.
    void Finish();

    uint64_t Sent() const { return m_ulSent; }
    // When the source sent the packet that this is a copy of, since the first one; 0 if it sent none such.
    int64_t SendTime(std::span<const uint8_t> datagram);
    int64_t StartUs() const { return m_nStartUs; } // when the first packet was sent
    const Tally& Of(Side side) const { return m_tallies[Index(side)]; }
    const History& Past() const { return m_history; }

private:
    // A packet's way to one side.
    struct Trail {
        uint16_t asked = 0;
        uint16_t askedThrough = 0; // requests that reached the proxy
        uint16_t again = 0; // copies that the proxy sent again
        bool isMarked = false; // one of these came over the wire, in whatever time
        bool isHere = false; // a copy came in time
        bool isMissing = false;
        bool isPlayed = false;
    };
    struct Entry {
        std::vector<uint8_t> datagram;
        int64_t sentUs = 0;
        std::array<Trail, 2> trails;
    };

    Entry* Find(uint16_t sequence);
    Entry& At(uint64_t index) { return m_entries[index % m_entries.size()]; }
    void MarkMissing(Side side, Entry& entry);
    void SettleUntil(Side side, uint64_t index);
    void SettleLost(Side side, Entry& entry);
    void TakePlayed(Side side, Entry& entry);
    void Wrong(Side side, const std::string& what);

    std::vector<Entry> m_entries; // the youngest packets
    std::array<uint64_t, 2> m_settled {}; // of each side: all packets before this one are played or lost
    std::array<Tally, 2> m_tallies;
    History m_history;
    int64_t m_nLatencyUs;
    int64_t m_nStartUs = 0;
    uint64_t m_ulSent = 0;
    uint16_t m_usFirst = 0; // sequence number of the first packet
};

} // namespace demo
