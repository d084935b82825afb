#pragma once

#include <cstddef>
#include <cstdint>

// Datagrams to one receiver that the kernel takes as one packet and cuts up at the far end of its
// own work (UDP_SEGMENT): all of one size, but the last may be shorter. The kernel takes 64 of
// them and a sum that fits one IPv4 packet. To queues, filters and tail drop on the way a train is
// one packet, so it stays below that.
constexpr int32_t MOST_IN_TRAIN = 32;
constexpr size_t MOST_BYTES_IN_TRAIN = 65507; // 65535 less the headers of IPv4 and UDP

// How many of the first datagrams, with `bytes` each, make one train; 1 when the first
// goes alone. `count` is 1 at least.
int32_t TrainLength(const size_t* bytes, int32_t count);
