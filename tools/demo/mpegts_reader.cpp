#include "demo/mpegts_reader.h"

#include <utility>

namespace demo {

namespace {

constexpr uint16_t PID_MASK = 0x1FFF;

uint16_t Be16(std::span<const uint8_t> bytes, size_t at)
{
    return static_cast<uint16_t>(bytes[at] << 8 | bytes[at + 1]);
}

// The section in a packet that begins one, whole and with a right sum; without the sum.
std::optional<std::span<const uint8_t>> Section(std::span<const uint8_t> payload)
{
    if (payload.empty() || payload.size() < 1U + payload[0] + 3U)
        return std::nullopt;
    payload = payload.subspan(1U + payload[0]);
    const size_t bytes = 3U + (Be16(payload, 1) & 0x0FFF);
    if (bytes < 12 || bytes > payload.size() || SectionSum(payload.first(bytes)) != 0)
        return std::nullopt;
    return payload.first(bytes - 4);
}

// Where the programme map is; programme 0 would be the network's table.
std::optional<uint16_t> FirstProgramme(std::span<const uint8_t> section)
{
    for (size_t at = 8; at + 4 <= section.size(); at += 4)
        if (Be16(section, at) != 0)
            return Be16(section, at + 2) & PID_MASK;
    return std::nullopt;
}

std::optional<uint16_t> FirstStream(std::span<const uint8_t> section)
{
    if (section.size() < 12)
        return std::nullopt;
    const size_t at = 12U + (Be16(section, 10) & 0x0FFF);
    if (at + 5 > section.size())
        return std::nullopt;
    return Be16(section, at + 1) & PID_MASK;
}

// The data of a PES packet, once all of it is there.
std::optional<std::vector<uint8_t>> PesData(std::span<const uint8_t> pes)
{
    if (pes.size() < 9 || pes[0] != 0 || pes[1] != 0 || pes[2] != 1)
        return std::nullopt;
    const size_t end = 6U + Be16(pes, 4), start = 9U + pes[8];
    if (start > end || end > pes.size())
        return std::nullopt;
    const auto data = pes.subspan(start, end - start);
    return std::vector<uint8_t>(data.begin(), data.end());
}

} // namespace

struct MpegTsReader::Packet {
    uint16_t pid;
    bool isStart;
    bool hasPayload;
    uint8_t counter;
    std::span<const uint8_t> payload;

    static std::optional<Packet> Parse(std::span<const uint8_t> bytes)
    {
        if (bytes[0] != TS_SYNC
            || (bytes[1] & 0x80) != 0) // the second: a receiver before us found it damaged
            return std::nullopt;
        const bool hasAdaptation = (bytes[3] & 0x20) != 0, hasPayload = (bytes[3] & 0x10) != 0;
        const size_t start = hasAdaptation ? 5U + bytes[4] : 4U;
        if (start > bytes.size())
            return std::nullopt;
        return Packet { static_cast<uint16_t>(Be16(bytes, 1) & PID_MASK), (bytes[1] & 0x40) != 0, hasPayload,
            static_cast<uint8_t>(bytes[3] & 0x0F), hasPayload ? bytes.subspan(start) : bytes.first(0) };
    }
};

std::vector<std::vector<uint8_t>> MpegTsReader::OnPackets(std::span<const uint8_t> packets)
{
    for (; packets.size() >= TS_PACKET_BYTES; packets = packets.subspan(TS_PACKET_BYTES))
        if (const auto packet = Packet::Parse(packets.first(TS_PACKET_BYTES)))
            OnPacket(*packet);
    return std::exchange(m_whole, {});
}

void MpegTsReader::OnPacket(const Packet& packet)
{
    if (packet.pid == NULL_PID || !packet.hasPayload)
        return;
    const bool isNext = Follows(packet);
    if (packet.pid == PAT_PID || packet.pid == m_mapPid) {
        OnTable(packet);
    } else if (packet.pid == m_streamPid) {
        if (!isNext)
            m_pes.clear(); // its middle is missing
        OnStream(packet);
    }
}

bool MpegTsReader::Follows(const Packet& packet)
{
    const auto [last, isNew] = m_counters.try_emplace(packet.pid, packet.counter);
    const bool isNext = isNew || packet.counter == ((last->second + 1) & 0x0F);
    last->second = packet.counter;
    m_ulErrors += isNext ? 0 : 1;
    return isNext;
}

void MpegTsReader::OnTable(const Packet& packet)
{
    const auto section = packet.isStart ? Section(packet.payload) : std::nullopt;
    if (!section)
        return;
    if (packet.pid == PAT_PID && (*section)[0] == 0x00)
        m_mapPid = FirstProgramme(*section);
    else if (packet.pid == m_mapPid && (*section)[0] == 0x02)
        m_streamPid = FirstStream(*section);
}

void MpegTsReader::OnStream(const Packet& packet)
{
    if (packet.isStart)
        m_pes.clear();
    else if (m_pes.empty())
        return;
    m_pes.insert(m_pes.end(), packet.payload.begin(), packet.payload.end());
    if (auto data = PesData(m_pes)) {
        m_whole.push_back(std::move(*data));
        m_pes.clear();
    }
}

} // namespace demo
