#include "arqlink/core/sequence_drops.h"

#include <algorithm>

namespace arqlink {

namespace {

constexpr size_t RTP_HEADER_BYTES = 12;

} // namespace

std::optional<uint16_t> SequenceNumber(std::span<const uint8_t> datagram)
{
    if (datagram.size() < RTP_HEADER_BYTES || (datagram[0] & 0xC0) != 0x80)
        return std::nullopt;
    return static_cast<uint16_t>(datagram[2] << 8 | datagram[3]);
}

void SequenceDrops::Configure(const std::vector<SequenceRange>& ranges)
{
    if (ranges == m_ranges)
        return;
    m_ranges = ranges;
    m_dropped.clear();
}

bool SequenceDrops::Drop(std::span<const uint8_t> datagram)
{
    if (m_ranges.empty())
        return false;
    const std::optional<uint16_t> number = SequenceNumber(datagram);
    if (!number)
        return false;
    const auto range = std::find_if(m_ranges.begin(), m_ranges.end(),
        [&](const SequenceRange& candidate) { return candidate.Holds(*number); });
    if (range == m_ranges.end())
        return false;
    uint32_t& times = m_dropped[*number];
    if (times >= range->times)
        return false;
    times++;
    return true;
}

} // namespace arqlink
