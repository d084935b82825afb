#pragma once

#include <cstdint>

#include "arqrx/core/number_ring.h"

namespace arqrx {

// A number that has not come although a higher one has.
struct Gap {
    enum class Turn : uint8_t {
        Never, // is not asked for any more
        First, // waits whether it was only overtaken
        Again, // was asked for, and may be asked for again when the answer should have come
        Soon, // the same, as soon as the proxy listens
        Now // stands in the list of what is asked for next
    };

    uint64_t index = 0;
    uint64_t before = 0; // neighbours in the queue of its turn; 0: none
    uint64_t after = 0;
    int64_t noticedUs = 0;
    int64_t firstAskedUs = 0;
    int64_t askedUs = 0; // last time
    int64_t dueUs = 0; // when it should be played out, reckoned from its neighbours
    int64_t beforeUs = 0; // when these are due: it is due in between
    int64_t afterUs = 0;
    uint32_t tries = 0;
    Turn turn = Turn::Never;
    bool isMissing = false; // counted as missing: it waited long enough to be asked for
};

// All gaps by number, and queues in the order of their turn: those that wait to be asked for the first time, by when
// they were noticed, and those that were asked for, by when that was. Each step costs the same however many there are.
class MissingList {
public:
    struct Queue {
        uint64_t first = 0;
        uint64_t last = 0;
    };

    bool Reach(uint64_t first, uint64_t last) { return m_gaps.Reach(first, last); }
    Gap* Find(uint64_t index) { return m_gaps.Find(index); }
    Gap& At(uint64_t index) { return m_gaps.Place(index); } // of a number that Next found
    // The first gap of [first, end), or `end`.
    uint64_t Next(uint64_t first, uint64_t end) const { return m_gaps.NextMarked(first, end); }

    // Notes a gap, at the end of those that wait for their first turn. The caller fills in the rest.
    Gap& Add(uint64_t index, int64_t noticedUs, int64_t dueUs);
    void Remove(Gap& gap);
    // Puts a gap at the end of the queue of this turn, out of any other.
    void Move(Gap& gap, Gap::Turn turn);

    // The next of a queue, null when it is empty.
    Gap* FirstOf(Gap::Turn turn);
    // How many have the turn Now.
    uint64_t Due() const { return m_nDue; }

private:
    Queue* QueueOf(Gap::Turn turn);
    void Unlink(Gap& gap);

    NumberRing<Gap> m_gaps; // marked: the gap is there
    Queue m_first;
    Queue m_again;
    Queue m_soon;
    uint64_t m_nDue = 0;
};

} // namespace arqrx
