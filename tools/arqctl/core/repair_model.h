#pragma once

#include <cstdint>

namespace arqctl {

// A line between proxy and receiver as the arithmetic sees it: packets evenly spaced, each lost by itself, the round
// trip the same for all.
struct RepairLine {
    double packetRate = 0; // a second, above 0
    double lossDown = 0; // share of media and resends, 0 to below 1
    double lossUp = 0; // share of requests
    int64_t roundTripUs = 0;
    int64_t latencyUs = 0; // of the receiver
    int64_t holdOffUs = 100'000; // between two tries, as the receiver is told
    int64_t reachPackets = 0; // a packet so far behind the newest cannot be asked for any more
};

// What becomes of packets. All but the tries are shares of the packets that are looked at.
struct Repair {
    int tries = 0; // that fit where the gap shows at once; the first packet of an outage has the fewest
    double left = 0; // lost for good
    double asked = 0; // numbers in requests of receivers
};

// Of the whole stream: packets are lost at random, some again and again.
Repair RepairOfRandomLoss(const RepairLine& line);

// Of the packets of an outage of `outageUs`: all are lost, and nothing can be asked for before it is over. Then the line
// is as ever. `outageUs` is above 0.
Repair RepairOfOutage(const RepairLine& line, int64_t outageUs);

// The share of tries that fail: the request or its answer is lost.
double FailingTries(const RepairLine& line);

} // namespace arqctl
