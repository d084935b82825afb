#pragma once

#include <cstdint>

// Packets that are taken from a queue, sent and remembered in one go at most. Only what already waits goes
// together, so this is no delay; it bounds what a queue, a filter or a tail drop on the way, to which a train
// of datagrams is one packet, can take away at once.
constexpr int32_t MOST_TOGETHER = 32;
