#include "demo/mpegts.h"

#include <algorithm>

namespace demo {

namespace {

constexpr uint8_t PRIVATE_STREAM_TYPE = 0x06; // PES packets with private data
constexpr uint8_t PRIVATE_STREAM_ID = 0xBD;
constexpr uint16_t PROGRAMME = 1;
constexpr uint8_t STUFFING = 0xFF;
constexpr size_t CLOCK_BYTES = 6;

void PutBe16(std::vector<uint8_t>& out, size_t value)
{
    out.push_back(static_cast<uint8_t>(value >> 8));
    out.push_back(static_cast<uint8_t>(value));
}

void PutHead(std::vector<uint8_t>& out, uint16_t pid, bool isStart, bool hasAdaptation, uint8_t& counter)
{
    out.push_back(TS_SYNC);
    PutBe16(out, (isStart ? 0x4000U : 0U) | pid);
    out.push_back(static_cast<uint8_t>((hasAdaptation ? 0x30 : 0x10) | counter));
    counter = (counter + 1) & 0x0F;
}

// Programme association: the programme's own table is at PMT_PID.
std::vector<uint8_t> ProgrammeAssociation()
{
    std::vector<uint8_t> section { 0x00, 0xB0, 13, 0, 1, 0xC1, 0, 0 };
    PutBe16(section, PROGRAMME);
    PutBe16(section, 0xE000U | PMT_PID);
    return section;
}

// Programme map: the clock and the only stream are at STREAM_PID.
std::vector<uint8_t> ProgrammeMap()
{
    std::vector<uint8_t> section { 0x02, 0xB0, 18 };
    PutBe16(section, PROGRAMME);
    section.insert(section.end(), { 0xC1, 0, 0 });
    PutBe16(section, 0xE000U | STREAM_PID);
    PutBe16(section, 0xF000U); // no descriptors of the programme
    section.push_back(PRIVATE_STREAM_TYPE);
    PutBe16(section, 0xE000U | STREAM_PID);
    PutBe16(section, 0xF000U);
    return section;
}

// 33 bits in five bytes, a marker bit behind each part.
void PutPresentationTime(std::vector<uint8_t>& out, uint64_t ticks)
{
    out.push_back(static_cast<uint8_t>(0x21 | (ticks >> 29 & 0x0E)));
    PutBe16(out, (ticks >> 14 & 0xFFFE) | 1);
    PutBe16(out, (ticks << 1 & 0xFFFE) | 1);
}

std::vector<uint8_t> Pes(std::span<const uint8_t> data, uint64_t ticks)
{
    std::vector<uint8_t> pes { 0, 0, 1, PRIVATE_STREAM_ID };
    PutBe16(pes, data.size() + PES_HEADER_BYTES - 6);
    pes.insert(pes.end(), { 0x84, 0x80, 5 }); // data begin here; a presentation time of five bytes
    PutPresentationTime(pes, ticks);
    pes.insert(pes.end(), data.begin(), data.end());
    return pes;
}

// 33 bits of 90 kHz, six unused ones, nine of 27 MHz that stay 0.
void PutClock(std::vector<uint8_t>& out, uint64_t ticks)
{
    PutBe16(out, ticks >> 17 & 0xFFFF);
    PutBe16(out, ticks >> 1 & 0xFFFF);
    PutBe16(out, (ticks << 15 & 0x8000) | 0x7E00);
}

// An adaptation field of `bytes` in all, its length byte included.
void PutAdaptation(std::vector<uint8_t>& out, size_t bytes, const uint64_t* clock)
{
    const size_t end = out.size() + bytes;
    out.push_back(static_cast<uint8_t>(bytes - 1));
    if (bytes > 1)
        out.push_back(clock != nullptr ? 0x10 : 0x00);
    if (clock != nullptr)
        PutClock(out, *clock);
    out.resize(end, STUFFING);
}

} // namespace

uint32_t SectionSum(std::span<const uint8_t> bytes)
{
    uint32_t sum = ~0U;
    for (const uint8_t byte : bytes) {
        sum ^= static_cast<uint32_t>(byte) << 24;
        for (int bit = 0; bit < 8; ++bit)
            sum = (sum << 1) ^ ((sum >> 31) != 0 ? 0x04C11DB7U : 0U);
    }
    return sum;
}

void MpegTsWriter::PutTable(
    std::vector<uint8_t>& out, uint16_t pid, std::vector<uint8_t> section, uint8_t& counter)
{
    const size_t end = out.size() + TS_PACKET_BYTES;
    PutHead(out, pid, true, false, counter);
    out.push_back(0); // the section begins at once
    const uint32_t sum = SectionSum(section);
    PutBe16(section, sum >> 16);
    PutBe16(section, sum & 0xFFFF);
    out.insert(out.end(), section.begin(), section.end());
    out.resize(end, STUFFING);
}

// Exactly `packets` packets: each takes as much as must not be left for those behind it.
void MpegTsWriter::PutPes(
    std::vector<uint8_t>& out, std::span<const uint8_t> data, uint64_t ticks, bool withClock, size_t packets)
{
    constexpr size_t ROOM = TS_PACKET_BYTES - 4;
    const std::vector<uint8_t> pes = Pes(data, ticks);
    size_t done = 0;
    for (size_t packet = 0; packet < packets; ++packet) {
        const bool hasClock = withClock && packet == 0;
        const size_t room = hasClock ? ROOM - 2 - CLOCK_BYTES : ROOM;
        const size_t behind = packets - packet - 1; // each needs a byte at least
        const size_t take = std::min(room, pes.size() - done - behind);
        const size_t adaptation = ROOM - take;
        PutHead(out, STREAM_PID, packet == 0, adaptation > 0, m_ucStreamCounter);
        if (adaptation > 0)
            PutAdaptation(out, adaptation, hasClock ? &ticks : nullptr);
        out.insert(out.end(), pes.begin() + static_cast<ptrdiff_t>(done),
            pes.begin() + static_cast<ptrdiff_t>(done + take));
        done += take;
    }
}

std::vector<uint8_t> MpegTsWriter::Datagram(std::span<const uint8_t> data, uint64_t ticks)
{
    std::vector<uint8_t> out;
    PutPes(out, data.first(std::min(data.size(), PLAIN_DATA_BYTES)), ticks, false, TS_PACKETS_PER_DATAGRAM);
    return out;
}

std::vector<uint8_t> MpegTsWriter::FirstDatagram(std::span<const uint8_t> data, uint64_t ticks)
{
    std::vector<uint8_t> out;
    PutTable(out, PAT_PID, ProgrammeAssociation(), m_ucPatCounter);
    PutTable(out, PMT_PID, ProgrammeMap(), m_ucPmtCounter);
    PutPes(
        out, data.first(std::min(data.size(), FIRST_DATA_BYTES)), ticks, true, TS_PACKETS_PER_DATAGRAM - 2);
    return out;
}

} // namespace demo
