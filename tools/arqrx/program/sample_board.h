#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "arqrx/program/sample.h"
#include "base/unique_fd.h"

namespace arqrx {

// Hands samples from the thread that counts to those that print. Who wants one asks and waits a little, so that each is
// fresh and nothing is copied while nobody asks.
// Threads: the media thread calls IsWanted, Publish and Close; any other calls Fresh.
class SampleBoard {
public:
    SampleBoard();

    // Becomes readable when a sample is wanted; -1 if the system had none. Stays owned here.
    int WakeDescriptor() const { return m_wake.Get(); }
    // Whether somebody waits; resets WakeDescriptor.
    bool IsWanted();
    void Publish(Sample sample);
    // The last sample is published: nobody waits for another.
    void Close();

    // What stands now; the last one published when none comes within `patienceUs`.
    Sample Fresh(int64_t patienceUs);

private:
    UniqueFd m_wake;
    std::atomic<bool> m_bWanted { false };
    std::mutex m_mutex;
    std::condition_variable m_published;
    Sample m_sample; // the last one; under the mutex, as the next two
    uint64_t m_nPublished = 0;
    bool m_bClosed = false;
};

} // namespace arqrx
