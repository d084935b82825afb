#pragma once

#include <cstdint>

#include "replicator/stream_table.h"

struct PacketBuffer;

// Streams that send from one socket, such as all that were learnt from pings, get a packet in one call.

// How many streams from entry `first` on, one after the other in the table, are alive and send from the same
// socket; 1 when that one goes alone.
int32_t CountSharing(const StreamTable::View& view, int32_t first);

// Sends the packet to `count` such streams in their order, without waiting. Returns to how many of them
// it has gone, and counts it for those. The next one, if any, would have to wait or was refused: a
// plain send does that or tells why.
int32_t SendShared(const StreamTable::View& view, int32_t first, int32_t count, const PacketBuffer& packet);
