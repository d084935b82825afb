#pragma once

#include <cstdint>
#include <span>

namespace arqrx {

// The payload of an RTP datagram: without header, contributing sources, extension and padding (RFC 3550, 5.1). Empty
// when they do not fit into it. The proxy's own headers are 12 bytes; with RTP input the sender's go through.
std::span<const uint8_t> RtpPayload(std::span<const uint8_t> datagram);

} // namespace arqrx
