#include "arqlink/relay/figures.h"

namespace arqlink {

void Add(Counts& sum, const Counts& part)
{
    constexpr uint64_t Counts::*MEMBERS[] = { &Counts::came, &Counts::cameBytes, &Counts::delivered,
        &Counts::deliveredBytes, &Counts::blackout, &Counts::sequence, &Counts::burst, &Counts::random,
        &Counts::queue, &Counts::memory, &Counts::duplicated, &Counts::corrupted, &Counts::reordered };
    static_assert(sizeof(MEMBERS) / sizeof(*MEMBERS) == sizeof(Counts) / sizeof(uint64_t));
    for (const auto member : MEMBERS)
        sum.*member += part.*member;
}

} // namespace arqlink
