#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace demo {

// The MPEG transport stream (ISO/IEC 13818-1), as far as the built-in stream needs it: one programme with one private
// stream, each PES packet whole inside one datagram.
constexpr size_t TS_PACKET_BYTES = 188;
constexpr size_t TS_PACKETS_PER_DATAGRAM = 7;
constexpr size_t TS_DATAGRAM_BYTES = TS_PACKET_BYTES * TS_PACKETS_PER_DATAGRAM;

constexpr uint8_t TS_SYNC = 0x47;
constexpr uint16_t PAT_PID = 0;
constexpr uint16_t PMT_PID = 0x100;
constexpr uint16_t STREAM_PID = 0x101;
constexpr uint16_t NULL_PID = 0x1FFF;

constexpr size_t PES_HEADER_BYTES = 14; // with a presentation time

// What fits into the datagrams of `MpegTsWriter`.
constexpr size_t PLAIN_DATA_BYTES = TS_PACKETS_PER_DATAGRAM * (TS_PACKET_BYTES - 4) - PES_HEADER_BYTES;
constexpr size_t FIRST_DATA_BYTES
    = PLAIN_DATA_BYTES - 2 * (TS_PACKET_BYTES - 4) - 8; // two tables and the clock

uint32_t SectionSum(std::span<const uint8_t> bytes); // CRC of tables, annex A

// Writes datagrams of seven packets. Threads: one.
class MpegTsWriter {
public:
    // `data`, at most PLAIN_DATA_BYTES, as one PES packet; stuffed to the datagram's size. Times are 90 kHz ticks.
    std::vector<uint8_t> Datagram(std::span<const uint8_t> data, uint64_t ticks);
    // The same behind both tables and with the clock; at most FIRST_DATA_BYTES.
    std::vector<uint8_t> FirstDatagram(std::span<const uint8_t> data, uint64_t ticks);

private:
    void PutTable(std::vector<uint8_t>& out, uint16_t pid, std::vector<uint8_t> section, uint8_t& counter);
    void PutPes(std::vector<uint8_t>& out, std::span<const uint8_t> data, uint64_t ticks, bool withClock,
        size_t packets);

    uint8_t m_ucPatCounter = 0;
    uint8_t m_ucPmtCounter = 0;
    uint8_t m_ucStreamCounter = 0;
};

} // namespace demo
