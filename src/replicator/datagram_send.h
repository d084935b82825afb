#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

struct PacketBuffer;

// Every datagram to a receiver leaves through here.

// Hands `length` bytes to the socket as one datagram. Returns the bytes taken, or -1 with errno set. Blocks
// as long as the socket's send buffer is full, unless `flags` (of sendto) say otherwise.
int SendDatagram(int fd, const uint8_t* data, size_t length, const sockaddr_in& destination, int flags = 0);

// Hands the packet to the socket as one datagram.
// A packet of one part is that part; any other is part 0 followed by part 1.
// Returns as above; may block.
int SendDatagram(int fd, const PacketBuffer& packet, const sockaddr_in& destination);
