#pragma once

#include <cstddef>
#include <cstdint>

#include "base/byte_order.h"
#include "base/rtp.h"

// Every record that travels between this proxy and its receivers, member by member in wire order.
// Byte orders are mixed on purpose, receivers depend on it: the type of each member tells its own.

constexpr uint8_t RTP_VERSION_FLAGS = 0x80; // version 2, no padding, no extension, no CSRC
constexpr uint8_t RTP_MARKER_BIT = 0x80;
constexpr uint8_t MEDIA_PAYLOAD_TYPE = 0x21; // 33, MPEG-TS (RFC 3551)
constexpr uint8_t RETRANSMIT_PAYLOAD_TYPE = 0x7A; // 122, marks a packet that was sent again

// RTP header (RFC 3550, 5.1) in front of every media payload.
struct MediaHeader {
    WireByte flags; // RTP_VERSION_FLAGS
    WireByte payloadType; // bit 7 is the marker
    Be16 seq;
    Be32 timestamp; // 90 kHz ticks of the first sending
    Host32 ssrc; // not swapped: receivers compare it as we store it
};
static_assert(sizeof(MediaHeader) == RTP_HEADER_BYTES && alignof(MediaHeader) == 1);
static_assert(offsetof(MediaHeader, seq) == 2 && offsetof(MediaHeader, timestamp) == 4);
static_assert(offsetof(MediaHeader, ssrc) == 8);

// Prefixes that a receiver may put before what it sends; each is recognised in either byte order.
constexpr uint32_t STREAM_TAG_MAGIC = 0xBABEFACE; // the next word is the receiver's stream ID
constexpr uint32_t STREAM_LEAVE_MAGIC = 0xDEADBEEF; // on the ping port: the receiver leaves

struct StreamTag {
    Host32 magic;
    Host32 streamId; // taken as read, also when the magic arrived swapped
};
static_assert(sizeof(StreamTag) == 8 && alignof(StreamTag) == 1);
static_assert(offsetof(StreamTag, streamId) == 4);

constexpr int32_t STREAM_TAG_BYTES = sizeof(StreamTag);
constexpr int32_t STREAM_MAGIC_BYTES = 4;

// What the proxy sends to a receiver that was deleted: both magics, as bytes on the wire.
constexpr uint8_t STOP_MESSAGE[8] = { 0xDE, 0xAD, 0xBE, 0xEF, 0xBA, 0xBE, 0xFA, 0xCE };

// A receiver's ping on the request port, fewer than 10 bytes in all; what follows is its own data.
struct ArqPing {
    Host16 zero; // 0: tells a ping from a request
    Be16 id; // ARQ_PING_ID
};
static_assert(sizeof(ArqPing) == 4 && alignof(ArqPing) == 1);
static_assert(offsetof(ArqPing, id) == 2);

constexpr uint16_t ARQ_PING_ID = 0xADE2;

// A receiver's request to send packets again; `seqCount` sequence numbers (Host16) follow.
struct ArqRequest {
    Host16 seqCount;
    Host16 checksum; // plus the 16-bit words of the list: 0 modulo 65536
    Host16 arqRetries;
    Host16 arqIntervalMs;
    Host16 arqExtraMs;
};
static_assert(sizeof(ArqRequest) == 10 && alignof(ArqRequest) == 1);
static_assert(offsetof(ArqRequest, checksum) == 2 && offsetof(ArqRequest, arqRetries) == 4);
static_assert(offsetof(ArqRequest, arqIntervalMs) == 6 && offsetof(ArqRequest, arqExtraMs) == 8);

constexpr int32_t ARQ_REQUEST_BYTES = sizeof(ArqRequest); // anything shorter is a ping or nothing
constexpr int32_t LONGEST_REQUEST_LIST_BYTES = 65535 * 2;
