#pragma once

#include <cstddef>
#include <cstdint>

#include "replicator/datagram_target.h"

struct PacketBuffer;

// The plain way: one call, one datagram. Whatever cannot leave in a train or together with others leaves
// here, and what is said here about a datagram is what counts.
//
// On a connected socket the kernel reports what became of an earlier datagram, a port that nobody has open
// for instance, in place of sending the next one; and it keeps the source address that it had when it was
// connected, whether this machine still has it or not. A datagram that fails there is therefore sent once
// more as if the socket were not connected, and only what that says is returned.

// Hands `length` bytes to the socket as one datagram. Returns the bytes taken, or -1 with errno set. Blocks
// as long as the socket's send buffer is full, unless `flags` (of sendto) say otherwise.
int SendDatagram(const DatagramTarget& target, const uint8_t* data, size_t length, int flags = 0);

// Hands the packet to the socket as one datagram; see PacketPieces. Otherwise as above.
int SendDatagram(const DatagramTarget& target, const PacketBuffer& packet, int flags = 0);
