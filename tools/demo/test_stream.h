#pragma once

#include <cstdint>
#include <vector>

#include "demo/mpegts.h"

namespace demo {

// The built-in stream: test pictures as a transport stream in RTP (RFC 2250), 300 datagrams or 3.2 Mbit a second, evenly
// spaced. No clock inside: the caller sends datagram i at its time. Threads: one.
class TestStream {
public:
    explicit TestStream(uint16_t firstNumber) : m_usNumber(firstNumber) {}

    static constexpr int DATAGRAMS_PER_PICTURE = 12;
    // From the beginning of the stream to datagram `index`.
    static int64_t TimeOf(uint64_t index);

    // The next datagram: RTP header, seven transport packets.
    std::vector<uint8_t> Next();
    uint64_t Made() const { return m_ulMade; }

private:
    std::vector<uint8_t> Payload();

    MpegTsWriter m_writer;
    std::vector<std::vector<uint8_t>> m_slices; // of the present picture
    uint64_t m_ulMade = 0;
    uint16_t m_usNumber;
};

} // namespace demo
