#pragma once

#include <netinet/in.h>

#include <cstdint>

#include "base/plain_word.h"

class PacketBufferPool;
class PacketQueue;

// What changes the data of each datagram in place; nothing does while the session is null.
struct InputTransform {
    using Callback = int (*)(void* session, uint8_t* data, int32_t length); // the result is not used

    void* session = nullptr;
    Callback callback = nullptr;
};

// What the input works with. It owns none of it; all of it outlives the input.
struct UdpInput {
    const PlainWord<int32_t>& running; // the run's own; received is while it is not 0
    uint16_t listenPort; // host order
    in_addr_t multicastGroup; // network order; joined if it is a group
    PacketBufferPool& pool; // where datagrams are received into
    PacketQueue& queue; // where they go
    InputTransform transform;
    PlainWord<uint32_t>& inputBytes; // with Ethernet, IPv4 and UDP headers; the input adds
    char (&sourceAddress)[INET_ADDRSTRLEN]; // of the first datagram, as a dotted quad; written while empty
};

// Receives the input stream until the run flag is cleared, which it notices within a quarter of a second; the
// last thing it pushes then is a null, so that main notices too. Returns early, with a message, when the
// socket cannot be made or bound.
//
// Threads: the input thread; it is the queue's only producer and the only one that takes from the pool.
void RunUdpInput(const UdpInput& input);

// The receive buffer to ask for, in bytes, when the socket has `currentBytes`.
int32_t WantedReceiveBuffer(int32_t currentBytes);
