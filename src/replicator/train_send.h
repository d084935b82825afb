#pragma once

#include <cstddef>
#include <cstdint>

#include "replicator/datagram_target.h"

struct PacketBuffer;
class TrainRefusals;

// Why sending ended where it did.
enum class TrainEnd {
    AsFarAsAsked,
    WouldWait, // the next packet did not leave because the send buffer is full
    Refused, // nor alone; a plain send tells why
};

struct TrainResult {
    int32_t taken = 0; // packets from the front that have left
    size_t bytes = 0; // of those
    TrainEnd end = TrainEnd::AsFarAsAsked;
};

// Sends packets to one receiver in their order, as trains where size and way allow it, in as few calls as
// possible and without waiting. A train that is refused leaves as single datagrams in the same operation, and
// the refusal is noted. Ends at a packet that cannot leave alone either: the caller sends that one plainly,
// which waits or tells why. Takes 64 packets at most.
TrainResult SendTrains(
    const DatagramTarget& target, PacketBuffer* const* packets, int32_t count, TrainRefusals& refusals);
