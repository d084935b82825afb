#include "demo/ledger.h"

#include <algorithm>

#include "arq/wire.h"
#include "demo/format.h"
#include "demo/media.h"

namespace demo {

namespace {

constexpr size_t ENTRIES = 1 << 14; // 54 s of the built-in stream, more than any latency here
constexpr size_t TYPE_AT = 1, SEQUENCE_AT = 2, TIMESTAMP_AT = 4, SSRC_AT = 8;
constexpr uint16_t FEWEST_TRIES = 2; // a side that asked less often did not try

uint16_t SequenceOf(std::span<const uint8_t> datagram)
{
    return static_cast<uint16_t>(datagram[SEQUENCE_AT] << 8 | datagram[SEQUENCE_AT + 1]);
}

// Equal but for the timestamp, which the proxy replaces by its own.
bool IsSamePacket(std::span<const uint8_t> sent, std::span<const uint8_t> played)
{
    return sent.size() == played.size()
        && std::ranges::equal(sent.first(TIMESTAMP_AT), played.first(TIMESTAMP_AT))
        && std::ranges::equal(sent.subspan(SSRC_AT), played.subspan(SSRC_AT));
}

uint16_t HostWord(std::span<const uint8_t> bytes, size_t at)
{
    Host16 word;
    std::copy_n(bytes.begin() + static_cast<ptrdiff_t>(at), sizeof(word), reinterpret_cast<uint8_t*>(&word));
    return word.Get();
}

template <typename... Values>
std::string Describe(const std::vector<uint8_t>& datagram, const char* format, Values... values)
{
    return Format("number %u, ", SequenceOf(datagram)) + Format(format, values...);
}

} // namespace

Ledger::Ledger(int64_t lengthUs, int64_t latencyUs)
    : m_entries(ENTRIES),
      m_history(lengthUs),
      m_nLatencyUs(latencyUs)
{
}

void Ledger::OnSent(std::span<const uint8_t> datagram, int64_t nowUs)
{
    if (m_ulSent == 0) {
        m_usFirst = SequenceOf(datagram);
        m_nStartUs = nowUs;
    }
    for (const Side side : SIDES) // what has to make room is not played out any more
        if (m_ulSent >= m_entries.size())
            SettleUntil(side, m_ulSent - m_entries.size() + 1);
    Entry& entry = At(m_ulSent++);
    entry.datagram.assign(datagram.begin(), datagram.end());
    entry.sentUs = nowUs;
    entry.trails = {};
    ++m_history.At(nowUs - m_nStartUs).sent;
}

// The youngest packet with that number; null when there is none or it was too long ago.
Ledger::Entry* Ledger::Find(uint16_t sequence)
{
    const auto newest = static_cast<uint16_t>(m_usFirst + m_ulSent - 1);
    const auto back = static_cast<uint16_t>(newest - sequence);
    if (m_ulSent == 0 || back >= std::min<uint64_t>(m_ulSent, m_entries.size()))
        return nullptr;
    return &At(m_ulSent - 1 - back);
}

int64_t Ledger::SendTime(std::span<const uint8_t> datagram)
{
    const Entry* const entry = datagram.size() >= RTP_HEADER_BYTES ? Find(SequenceOf(datagram)) : nullptr;
    return entry != nullptr ? entry->sentUs - m_nStartUs : 0;
}

void Ledger::OnFromProxy(Side side, std::span<const uint8_t> datagram, bool passed)
{
    Entry* const entry = datagram.size() >= RTP_HEADER_BYTES ? Find(SequenceOf(datagram)) : nullptr;
    if (entry == nullptr)
        return;
    if (IsAgain(datagram))
        ++entry->trails[Index(side)].again;
    else if (!passed)
        MarkMissing(side, *entry);
}

void Ledger::OnDelivered(Side side, std::span<const uint8_t> datagram, int64_t nowUs)
{
    Entry* const entry = datagram.size() >= RTP_HEADER_BYTES ? Find(SequenceOf(datagram)) : nullptr;
    if (entry == nullptr)
        return;
    Trail& trail = entry->trails[Index(side)];
    trail.isMarked |= IsAgain(datagram);
    trail.isHere |= nowUs - entry->sentUs < m_nLatencyUs;
}

void Ledger::OnRequest(Side side, std::span<const uint8_t> datagram, bool passed)
{
    if (datagram.size() >= STREAM_TAG_BYTES && HostWord(datagram, 0) == (STREAM_TAG_MAGIC & 0xFFFF)
        && HostWord(datagram, 2) == STREAM_TAG_MAGIC >> 16)
        datagram = datagram.subspan(STREAM_TAG_BYTES);
    if (datagram.size() < ARQ_REQUEST_BYTES)
        return;
    for (size_t at = ARQ_REQUEST_BYTES; at + 2 <= datagram.size(); at += 2)
        if (Entry* const entry = Find(HostWord(datagram, at))) {
            Trail& trail = entry->trails[Index(side)];
            ++trail.asked;
            if (passed)
                ++trail.askedThrough;
        }
}

void Ledger::OnPlayed(Side side, std::span<const uint8_t> datagram)
{
    Tally& tally = m_tallies[Index(side)];
    ++tally.played;
    Entry* const entry = datagram.size() >= RTP_HEADER_BYTES ? Find(SequenceOf(datagram)) : nullptr;
    if (entry == nullptr) {
        Wrong(side, "something that was never sent");
        return;
    }
    const auto newest = static_cast<uint16_t>(m_usFirst + m_ulSent - 1);
    const uint64_t index = m_ulSent - 1 - static_cast<uint16_t>(newest - SequenceOf(datagram));
    if (index < m_settled[Index(side)]) {
        Wrong(side, Format("number %u after its turn", SequenceOf(datagram)));
        return;
    }
    if (!IsSamePacket(entry->datagram, datagram))
        Wrong(side,
            Describe(entry->datagram, "with %u bytes and payload type %u",
                static_cast<unsigned>(datagram.size()), datagram[TYPE_AT] & ~RTP_MARKER_BIT & 0xFFU));
    TakePlayed(side, *entry);
    SettleUntil(side, index + 1);
}

void Ledger::Wrong(Side side, const std::string& what)
{
    if (++m_tallies[Index(side)].wrong == 1)
        m_tallies[Index(side)].firstWrong = what;
}

void Ledger::TakePlayed(Side side, Entry& entry)
{
    Trail& trail = entry.trails[Index(side)];
    trail.isPlayed = true;
    if (!trail.isMissing)
        return;
    ++m_tallies[Index(side)].recovered;
    ++m_history.At(entry.sentUs - m_nStartUs).sides[Index(side)].recovered;
    m_tallies[Index(side)].unmarked += trail.isMarked ? 0 : 1;
}

void Ledger::Finish()
{
    for (const Side side : SIDES)
        SettleUntil(side, m_ulSent);
}

void Ledger::MarkMissing(Side side, Entry& entry)
{
    Trail& trail = entry.trails[Index(side)];
    if (trail.isMissing || trail.isPlayed)
        return;
    trail.isMissing = true;
    ++m_tallies[Index(side)].missing;
    ++m_history.At(entry.sentUs - m_nStartUs).sides[Index(side)].missing;
}

// Play-out is in order: what lies before a packet that was played out and was not itself is lost.
void Ledger::SettleUntil(Side side, uint64_t index)
{
    uint64_t& settled = m_settled[Index(side)];
    for (; settled < index; ++settled)
        if (!At(settled).trails[Index(side)].isPlayed)
            SettleLost(side, At(settled));
}

void Ledger::SettleLost(Side side, Entry& entry)
{
    const Trail& trail = entry.trails[Index(side)];
    Tally& tally = m_tallies[Index(side)];
    MarkMissing(side, entry);
    ++tally.lost;
    ++m_history.At(entry.sentUs - m_nStartUs).sides[Index(side)].lost;
    // Each request was lost on its way, or what came back was.
    const bool hasTried = trail.asked >= FEWEST_TRIES && (trail.askedThrough == 0 || trail.again > 0);
    if (hasTried && !trail.isHere)
        ++tally.excused;
    else if (tally.firstLost.empty())
        tally.firstLost = Describe(entry.datagram,
            "asked for %u times, of which the proxy saw %u, and sent again %u times", trail.asked,
            trail.askedThrough, trail.again);
}

} // namespace demo
