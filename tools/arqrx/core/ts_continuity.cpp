#include "arqrx/core/ts_continuity.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace arqrx {

namespace {

constexpr size_t PACKET_BYTES = 188;
constexpr size_t HEADER_BYTES = 4;
constexpr uint8_t SYNC_BYTE = 0x47;
constexpr size_t PIDS = 8192;
constexpr size_t NULL_PID = 0x1FFF; // its counter means nothing
constexpr uint8_t TRANSPORT_ERROR = 0x80; // in byte 1: the header itself is doubtful
constexpr uint8_t HAS_ADAPTATION = 0x20; // in byte 3
constexpr uint8_t HAS_PAYLOAD = 0x10;
constexpr uint8_t DISCONTINUITY = 0x80; // in the first byte of flags
constexpr uint8_t COUNTER_MASK = 0x0F;

// A packet that is sent twice has the same payload; its adaptation field may have another clock reference.
uint64_t PayloadMark(const uint8_t* packet)
{
    size_t at = HEADER_BYTES;
    if ((packet[3] & HAS_ADAPTATION) != 0)
        at += size_t { 1 } + packet[HEADER_BYTES];
    uint64_t mark = PACKET_BYTES - std::min(at, PACKET_BYTES);
    for (; at + sizeof(uint64_t) <= PACKET_BYTES; at += sizeof(uint64_t)) {
        uint64_t word = 0;
        std::memcpy(&word, packet + at, sizeof(word));
        mark = (mark ^ word) * 0x9E3779B97F4A7C15U;
        mark ^= mark >> 29;
    }
    for (; at < PACKET_BYTES; ++at)
        mark = (mark ^ packet[at]) * 0x9E3779B97F4A7C15U;
    return mark;
}

bool IsDiscontinuity(const uint8_t* packet)
{
    const bool hasFlags = (packet[3] & HAS_ADAPTATION) != 0 && packet[HEADER_BYTES] > 0;
    return hasFlags && (packet[HEADER_BYTES + 1] & DISCONTINUITY) != 0;
}

bool IsTransportStream(std::span<const uint8_t> payload)
{
    if (payload.empty() || payload.size() % PACKET_BYTES != 0)
        return false;
    for (size_t at = 0; at < payload.size(); at += PACKET_BYTES) {
        if (payload[at] != SYNC_BYTE)
            return false;
    }
    return true;
}

} // namespace

struct TsContinuity::Pid {
    uint64_t mark = 0; // of the last payload
    uint8_t counter = 0; // the last one
    bool isKnown = false;
    bool wasDouble = false;
};

TsContinuity::TsContinuity() : m_pids(std::make_unique<Pid[]>(PIDS)) {}

TsContinuity::~TsContinuity() = default;

void TsContinuity::Add(std::span<const uint8_t> payload)
{
    if (!IsTransportStream(payload)) {
        ++m_nForeign;
        return;
    }
    for (size_t at = 0; at < payload.size(); at += PACKET_BYTES)
        AddPacket(&payload[at]);
}

void TsContinuity::Forget()
{
    std::fill_n(m_pids.get(), PIDS, Pid {});
}

void TsContinuity::AddPacket(const uint8_t* packet)
{
    ++m_nPackets;
    const size_t number = static_cast<size_t>(packet[1] & 0x1F) << 8 | packet[2];
    if (number == NULL_PID || (packet[1] & TRANSPORT_ERROR) != 0)
        return;
    const auto counter = static_cast<uint8_t>(packet[3] & COUNTER_MASK);
    Pid& pid = m_pids[number];
    if (pid.isKnown && !IsDiscontinuity(packet))
        return Follow(pid, packet, counter, (packet[3] & HAS_PAYLOAD) != 0);
    pid = { PayloadMark(packet), counter, true, false };
}

void TsContinuity::Follow(Pid& pid, const uint8_t* packet, uint8_t counter, bool hasPayload)
{
    if (!hasPayload) { // such a packet has the number of the one before
        m_nErrors += counter != pid.counter ? 1 : 0;
        pid.counter = counter;
        return;
    }
    const uint64_t mark = PayloadMark(packet);
    const bool isDouble = counter == pid.counter && mark == pid.mark && !pid.wasDouble;
    if (isDouble)
        ++m_nDoubles;
    else if (counter != ((pid.counter + 1) & COUNTER_MASK))
        ++m_nErrors;
    pid = { mark, counter, true, isDouble };
}

} // namespace arqrx
