#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

// What goes over the wire between this program and the proxy, written down a second time: nothing here comes from
// the proxy's own sources. Words of requests and tags are little-endian, those of the media header big-endian.

constexpr size_t HEADER_BYTES = 12;
constexpr size_t LARGEST_MEDIA = 1500;
constexpr size_t SHORT_DATAGRAM = 10; // requests and media have at least so many bytes

// One media datagram as it came.
struct Media {
    uint64_t number; // from the payload: counts the input from its first packet on, and never wraps
    uint32_t timestamp;
    bool isResend;
};

// The input packet of that number: the header holds its lower 16 bits, the payload the whole number, words that
// follow from it, and a checksum over everything but the timestamp and the payload type. Returns its size.
size_t MakeMedia(uint64_t number, uint8_t* data);

// All packets as large as seven packets of a transport stream make them; otherwise one in some is.
void UseLargeMedia(bool all);

// Returns what is wrong with a received datagram, or null and the packet.
const char* ReadMedia(const uint8_t* data, size_t size, Media* media);

bool IsStopMessage(const uint8_t* data, size_t size);

// What a receiver may ask on: how long a packet may be asked for, in the protocol's three words.
struct Window {
    uint16_t retries;
    uint16_t intervalMs;
    uint16_t extraMs;
};

constexpr uint32_t NO_ID = 0;

using Bytes = std::vector<uint8_t>;

// From a receiver. Those with an ID carry it in a tag; a ping without one is a word of the receiver's own.
Bytes MakePing(uint32_t streamId);
Bytes MakeStop(uint32_t streamId);
Bytes MakeRequest(uint32_t streamId, const std::vector<uint64_t>& numbers, Window window);
Bytes MakeEcho(uint32_t streamId, uint8_t receiver, uint32_t serial);

// Whose echo it is, and which one. False if it is no echo of ours.
bool ReadEcho(const uint8_t* data, size_t size, uint8_t* receiver, uint32_t* serial);
