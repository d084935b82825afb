#include "replicator/socket_group.h"

#include <sys/select.h>

#include <algorithm>
#include <cstdio>

#include "pacing/ms_clock.h"
#include "replicator/socket_listener.h"

namespace {

constexpr uint32_t STOP_WAIT_MS = 600; // longer than one wait for datagrams
constexpr uint32_t SETTLE_MS = 50; // between making the sockets usable and the first wait
constexpr suseconds_t SELECT_US = 250000;

// A descriptor that select can wait for; its sets have no room for higher numbers.
bool IsSelectable(const SocketListener* listener)
{
    return listener != nullptr && listener->Socket() >= 0 && listener->Socket() < FD_SETSIZE;
}

} // namespace

SocketGroup::~SocketGroup()
{
    (void)Stop();
    m_crew.WaitUntilGone();
}

void SocketGroup::SetListener(SocketListener* listener, int position)
{
    if (position >= 0 && position < POSITIONS)
        m_listeners[position] = listener;
}

bool SocketGroup::Start()
{
    if (m_bRunning)
        return false;
    m_bRunning = 1;
    if (m_crew.Start(Listen, this))
        return true;
    m_bRunning = 0;
    return false;
}

bool SocketGroup::Stop()
{
    if (!m_bRunning) {
        m_crew.WaitUntilGone(); // a thread that found no listener ends by itself
        return false;
    }
    m_bRunning = 0;
    (void)SleepMs(STOP_WAIT_MS);
    m_crew.WaitUntilGone();
    return true;
}

void SocketGroup::Listen(void* group)
{
    auto* self = static_cast<SocketGroup*>(group);
    if (!self->InitListeners())
        return; // m_bRunning stays: Stop still waits for this thread
    (void)SleepMs(SETTLE_MS);
    if (self->m_listeners[0] == nullptr && self->m_listeners[1] == nullptr)
        self->m_bRunning = 0;
    while (self->m_bRunning)
        self->ServeOnce();
}

bool SocketGroup::InitListeners()
{
    for (int position = 0; position < POSITIONS; ++position) {
        if (m_listeners[position] == nullptr)
            continue;
        bool ok = true;
        m_listeners[position]->Init(ok);
        if (!ok) {
            (void)fprintf(stderr, "SocketGroupListenThread::Listen: Init(%d) failed\n", position);
            return false;
        }
    }
    return true;
}

void SocketGroup::ServeOnce()
{
    fd_set readable;
    FD_ZERO(&readable);
    int highest = -1;
    for (const SocketListener* listener : m_listeners) {
        if (!IsSelectable(listener))
            continue;
        FD_SET(listener->Socket(), &readable);
        highest = std::max(highest, listener->Socket());
    }
    timeval timeout { 0, SELECT_US };
    if (select(highest + 1, &readable, nullptr, nullptr, &timeout) <= 0)
        return;
    for (SocketListener* listener : m_listeners) {
        if (IsSelectable(listener) && FD_ISSET(listener->Socket(), &readable))
            listener->Receive();
    }
}
