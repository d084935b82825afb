#pragma once

#include <cstdint>

// What a datagram from a receiver is, told by its length and first bytes. Everything behind these
// functions may trust the record they name. Free functions without state.

// The stream tag at the start of a datagram.
struct StreamTagInfo {
    uint32_t streamId; // 0 when the datagram carries no tag
    bool isLeave; // begins with the leave magic, tag or not
};
StreamTagInfo ReadStreamTag(const uint8_t* data, int32_t length);

// What stands on the request port behind the tag.
enum class RequestKind {
    Ping, // ArqPing: to be echoed
    BadPing, // begins like a ping but carries another ID
    Request, // ArqRequest with a complete header; its checksum is not looked at here
    Other, // too short for anything: to be ignored
};
RequestKind ClassifyRequest(const uint8_t* data, int32_t length);
