#include "arqrx/core/rtp_payload.h"

#include <cstddef>

#include "base/rtp.h"

namespace arqrx {

namespace {

constexpr uint8_t PADDING = 0x20; // the last byte says how many
constexpr uint8_t EXTENSION = 0x10;
constexpr uint8_t SOURCES_MASK = 0x0F;
constexpr size_t WORD_BYTES = 4;
constexpr size_t EXTENSION_HEADER_BYTES = 4; // of which the last two, big-endian, count the words that follow

} // namespace

std::span<const uint8_t> RtpPayload(std::span<const uint8_t> datagram)
{
    if (datagram.size() < RTP_HEADER_BYTES)
        return {};
    size_t begin = RTP_HEADER_BYTES + (datagram[0] & SOURCES_MASK) * WORD_BYTES;
    if ((datagram[0] & EXTENSION) != 0) {
        if (datagram.size() < begin + EXTENSION_HEADER_BYTES)
            return {};
        const size_t words = static_cast<size_t>(datagram[begin + 2]) << 8 | datagram[begin + 3];
        begin += EXTENSION_HEADER_BYTES + words * WORD_BYTES;
    }
    const size_t padding = (datagram[0] & PADDING) != 0 ? datagram.back() : 0;
    if (datagram.size() < begin + padding)
        return {};
    return datagram.subspan(begin, datagram.size() - begin - padding);
}

} // namespace arqrx
