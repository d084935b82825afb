#pragma once

#include <atomic>
#include <cstdint>

#include "base/mutex.h"

// Tells when everyone who may still be reading what was unlinked has left, without making anybody wait.
// Readers walk the stream table inside a section and take no lock; a writer unlinks and goes on; one
// destroyer looks now and then whether a whole period has passed since, and destroys only then.
//
// Why that is safe. A reader first counts itself in (one atomic addition), then loads the published state.
// A writer first publishes the new state, then what it unlinked reaches the destroyer, which loads the
// counts. These four are sequentially consistent, so there is one order of all of them, and in it
//  - either the reader's load comes before the publishing: then its count does too, and the destroyer's
//    later look at that count sees it until the reader has left;
//  - or it comes after: then the reader, however late it is, finds the new state and cannot reach what was
//    unlinked.
// With acquire and release alone both sides could miss each other: the reader's count may still be on its
// way when the destroyer looks, while the reader has loaded the old state already.
//
// Why there are two counts. Media never pause: with one count a new reader may always be inside before the
// last one has left, and it would never be seen at 0. So newcomers are sent to the other side, and the side
// that they have left runs empty. A reader may pick a side just before that changes and count itself in
// afterwards; it then delays the look at that side by one section. That is also why a period needs both
// sides seen empty once: a reader of the old state may stand on either. Which side is open orders nothing.
// All orders of these steps are gone through in stream_table_model_test.
//
// Threads: any number of readers; one destroyer, which alone calls BeginPeriod and IsPeriodOver.
class CAPABILITY("read_section") ReadSections {
public:
    static constexpr unsigned SIDES = 2;

    // Enters a section; never waits. The result goes to Leave.
    unsigned Enter() ACQUIRE_SHARED()
    {
        const unsigned side = m_nOpenSide.load();
        m_readers[side].fetch_add(1);
        return side;
    }
    void Leave(unsigned side) RELEASE_SHARED() { m_readers[side].fetch_sub(1); }

    // Begins a period for everything that was unlinked before this call.
    void BeginPeriod() { m_nSidesToSee = SIDES; }

    // One look, which never waits: true once every reader that entered before BeginPeriod has left.
    bool IsPeriodOver();

private:
    std::atomic<unsigned> m_nOpenSide { 0 }; // where newcomers count themselves in
    std::atomic<int32_t> m_readers[SIDES] {};
    unsigned m_nSidesToSee = 0; // sides that were not yet seen empty in this period; the destroyer's own
};
