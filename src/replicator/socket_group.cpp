#include "replicator/socket_group.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>

#include "pacing/ms_clock.h"
#include "replicator/socket_listener.h"

namespace {

constexpr uint32_t STOP_WAIT_MS = 600; // longer than one wait for datagrams
constexpr uint32_t SETTLE_MS = 50; // between making the sockets usable and the first wait
constexpr int WAIT_MS = 250;
// What each listener passes on after one wait. Under a flood most of the time
// would go into waits that end at once.
constexpr int MOST_TURNS = 32;
// After so long there is another look at both sockets: a datagram that came meanwhile at the other one does
// not wait for 32 answers to a receiver that blocks. A wait and this are what HeardClock counts of a round.
constexpr uint32_t MOST_SERVING_MS = 50;
static_assert(WAIT_MS + MOST_SERVING_MS <= HeardClock::ROUND_MS);

// What is wanted from each position; descriptor -1 for nothing.
using Wanted = std::array<pollfd, SocketGroup::POSITIONS>;

// Takes out what is not open: it would end every wait at once. False when all are.
bool TakeOutClosed(Wanted& wanted)
{
    bool hasTaken = false;
    for (pollfd& one : wanted) {
        if ((one.revents & POLLNVAL) == 0)
            continue;
        one.fd = -1;
        hasTaken = true;
    }
    return hasTaken;
}

bool HoldsDatagram(const SocketListener* listener)
{
    return listener != nullptr && listener->HoldsDatagram();
}

// Marks the listeners that may have a datagram: what came within 250 ms, and what one still holds of what it
// has read, which nobody waits for.
void WaitForDatagrams(const SocketGroup::Listeners& listeners, Wanted& wanted)
{
    const bool mayWait = std::none_of(listeners.begin(), listeners.end(), HoldsDatagram);
    int count = 0;
    do {
        count = poll(wanted.data(), wanted.size(), mayWait ? WAIT_MS : 0);
    } while (count > 0 && TakeOutClosed(wanted));
    if (count < 0 && errno != EINTR && mayWait)
        (void)SleepMs(WAIT_MS); // whoever loops around this wait must not spin
    for (size_t position = 0; position < listeners.size(); ++position) {
        if (count <= 0)
            wanted[position].revents = 0;
        if (HoldsDatagram(listeners[position]))
            wanted[position].revents = POLLIN;
    }
}

// Lets each listener that may have a datagram pass one on. False when none has more.
bool ServeReadable(const SocketGroup::Listeners& listeners, Wanted& wanted)
{
    bool hasMore = false;
    for (size_t position = 0; position < listeners.size(); ++position) {
        pollfd& one = wanted[position];
        if (one.revents == 0)
            continue;
        (void)listeners[position]->Receive();
        if (listeners[position]->MayHaveMore())
            hasMore = true;
        else
            one.revents = 0;
    }
    return hasMore;
}

} // namespace

void SocketGroup::SetListener(SocketListener* listener, int position)
{
    if (position >= 0 && position < POSITIONS)
        m_listeners[static_cast<size_t>(position)] = listener;
}

bool SocketGroup::Start()
{
    if (m_bRunning)
        return false;
    m_bRunning = true;
    if (m_crew.Start(Listen, this))
        return true;
    m_bRunning = false;
    return false;
}

bool SocketGroup::Stop()
{
    const bool wasRunning = m_bRunning;
    m_bRunning = false;
    if (wasRunning)
        (void)SleepMs(STOP_WAIT_MS);
    m_crew.WaitUntilGone(); // also for a thread that found no listener and is ending by itself
    return wasRunning;
}

void SocketGroup::Listen(void* group)
{
    auto* self = static_cast<SocketGroup*>(group);
    if (!InitListeners(self->m_listeners))
        return; // m_bRunning stays: Stop still waits for this thread
    (void)SleepMs(SETTLE_MS);
    if (self->m_listeners == Listeners {})
        self->m_bRunning = false;
    while (self->m_bRunning) {
        self->m_heard.OnRound(GetSteadyMs());
        ServeListeners(self->m_listeners);
    }
}

uint32_t SocketGroup::HeardMs() const
{
    return m_heard.Now(GetSteadyMs());
}

bool InitListeners(const SocketGroup::Listeners& listeners)
{
    for (size_t position = 0; position < listeners.size(); ++position) {
        if (listeners[position] == nullptr)
            continue;
        bool ok = true;
        listeners[position]->Init(ok);
        if (!ok) {
            fprintf(stderr, "SocketGroupListenThread::Listen: Init(%d) failed\n", static_cast<int>(position));
            return false;
        }
    }
    return true;
}

void ServeListeners(const SocketGroup::Listeners& listeners)
{
    Wanted wanted {};
    for (size_t position = 0; position < listeners.size(); ++position) {
        const SocketListener* listener = listeners[position];
        wanted[position] = { listener != nullptr ? listener->Socket() : -1, POLLIN, 0 };
    }
    WaitForDatagrams(listeners, wanted);
    const uint32_t beginMs = GetSteadyMs();
    for (int turn = 1; ServeReadable(listeners, wanted) && turn < MOST_TURNS; ++turn) {
        if (GetSteadyMs() - beginMs >= MOST_SERVING_MS)
            return;
    }
}
