#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace arqrx {

// What came from the network, by its length and first bytes. Whoever has the kind may trust that the bytes it stands
// for are there. Free functions without state.
enum class DatagramKind : uint8_t {
    Media, // a first sending: RTP version 2 (RFC 3550, 5.1) with any payload type but 122
    Resend, // the same with payload type 122: sent again
    Echo, // our own measurement of the round trip
    Stop, // the proxy has ended the stream
    Stranger // nothing of ours
};

// The longest media datagram: what the proxy takes, its own header, and room to spare.
constexpr size_t MOST_DATAGRAM_BYTES = 1600;
// Our own data behind the two words of an echo.
constexpr size_t ECHO_DATA_BYTES = 5;

DatagramKind ClassifyDatagram(std::span<const uint8_t> datagram);

// The words of a media datagram's RTP header.
struct MediaWords {
    uint16_t seq;
    uint32_t timestamp; // 90 kHz ticks of the proxy's wall clock
    uint32_t ssrc;
    uint8_t payloadType; // without the marker
};
MediaWords ReadMediaWords(std::span<const uint8_t> media);

// Writes the payload type of a first sending into a datagram that came as a resend; the marker stays.
void RestorePayloadType(uint8_t* media, uint8_t payloadType);

// Our own data of an echo, as a number.
uint64_t ReadEchoData(std::span<const uint8_t> echo);

} // namespace arqrx
