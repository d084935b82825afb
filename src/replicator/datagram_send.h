#pragma once

#include <netinet/in.h>

struct PacketBuffer;

// Hands the packet to the socket as one datagram. Every datagram to a receiver leaves through here.
// A packet of one part is that part; any other is part 0 followed by part 1.
// Returns the bytes taken, or -1 with errno set. May block as long as the socket's send buffer is full.
int SendDatagram(int fd, const PacketBuffer& packet, const sockaddr_in& destination);
