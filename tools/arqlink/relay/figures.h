#pragma once

#include "arqlink/core/line.h"

#include <cstdint>

namespace arqlink {

// What all lines of one direction have done. came + duplicated = delivered + lost + underWay, always.
struct DirectionFigures {
    Counts counts; // delivered: handed to the system
    uint64_t forgotten = 0; // lost because their client was forgotten while they were under way
    uint64_t underWay = 0;
    uint64_t refused = 0; // of the delivered ones, those that the system did not send

    uint64_t Lost() const { return counts.Lost() + forgotten; }
};

struct Figures {
    DirectionFigures down; // from the targets to the clients
    DirectionFigures up; // from the clients to the targets
    uint64_t clients = 0;
    uint64_t clientsSeen = 0;
    uint64_t clientsRefused = 0; // datagrams of clients for which there was no room
    uint64_t strangers = 0; // datagrams to clients that came from no target
    uint64_t overrun = 0; // datagrams that the system threw away because the program was too slow
};

void Add(Counts& sum, const Counts& part);

} // namespace arqlink
