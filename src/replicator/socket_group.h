#pragma once

#include <array>
#include <cstdint>

#include "base/plain_word.h"
#include "replicator/heard_clock.h"
#include "replicator/thread_crew.h"

class SocketListener;

// Serves up to two listeners from one listen thread.
//
// Threads: SetListener, Start and Stop are called by the owner, SetListener only while the thread does not
// run; the listen thread alone uses the listeners in between. Anyone calls HeardMs.
class SocketGroup {
public:
    static constexpr int POSITIONS = 2;
    using Listeners = std::array<SocketListener*, POSITIONS>; // null: none

    SocketGroup() = default;
    SocketGroup(const SocketGroup&) = delete;
    SocketGroup& operator=(const SocketGroup&) = delete;
    ~SocketGroup() { (void)Stop(); }

    // Puts a listener (not owned; null for none) into position 0 or 1; other positions are ignored.
    void SetListener(SocketListener* listener, int position);

    // Starts the listen thread. False when it already runs or cannot be made.
    bool Start();

    // Ends the listen thread and returns once it is gone, 600 ms later at the earliest. False when it does
    // not run.
    bool Stop();

    // The time by which silence is measured; see HeardClock.
    uint32_t HeardMs() const;

private:
    // The listen thread: initialises the listeners, then serves them until the group is stopped. Ends
    // alone when a listener cannot be made usable.
    static void Listen(void* group);

    PlainWord<bool> m_bRunning { false }; // the owner sets and clears it, the listen thread polls it
    ThreadCrew m_crew;
    Listeners m_listeners {};
    HeardClock m_heard;
};

// Makes the listeners usable, in order. False, with a message, at the first that cannot be.
bool InitListeners(const SocketGroup::Listeners& listeners);

// Waits for datagrams, 250 ms at most, and lets each listener that has one take it.
void ServeListeners(const SocketGroup::Listeners& listeners);
