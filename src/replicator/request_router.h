#pragma once

#include <netinet/in.h>

#include <cstdint>

class StreamTable;
struct PacketBuffer;

// When a request is taken.
struct RequestTime {
    uint32_t nowMs; // of a steady clock
    bool isCrowded; // datagrams of others wait
};

// Finds the stream that a datagram on the request port belongs to, by the stream ID of its tag (0: none) or
// by its sender's address (network order), and hands it, without the tag, to the stream's ARQ engine.
// Requests of unknown receivers are ignored in silence.
//
// Where datagrams of others wait, those of a receiver beyond its quota are dropped unread: see RequestQuota.
//
// Threads: the listen thread. Takes no lock, as the packet path: a view keeps the stream alive meanwhile.
void RouteRequest(const StreamTable& table, PacketBuffer* packet, in_addr_t addressNet, uint32_t streamId,
    const RequestTime& time);
