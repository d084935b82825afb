#include "replicator/stream_table.h"

#include <algorithm>
#include <utility>

#include "replicator/my_arq_send_cb.h"

namespace {

// Puts a state at the head of a list that another thread may be changing too.
template <typename State>
void Push(std::atomic<State*>& list, State* state)
{
    state->next = list.load();
    while (!list.compare_exchange_weak(state->next, state)) {}
}

} // namespace

bool StreamEntries::FindIndex(const MyArqSendCB* stream, int32_t* index) const
{
    for (int32_t i = 0; i < m_nCount; ++i) {
        if (m_pStreams[i] == stream) {
            *index = i;
            return true;
        }
    }
    return false;
}

MyArqSendCB* StreamEntries::Find(in_addr_t addressNet, uint32_t streamId) const
{
    MyArqSendCB* byId = nullptr;
    MyArqSendCB* byAddress = nullptr;
    ForEach([&](MyArqSendCB& stream) {
        if (streamId != 0 && stream.StreamId() == streamId && !byId)
            byId = &stream;
        if (stream.StreamId() == 0 && stream.AddressNet() == addressNet && !byAddress)
            byAddress = &stream;
    });
    return byId ? byId : byAddress;
}

StreamTable::Lock::Lock(StreamTable& table) : m_mutex(table.m_mutex)
{
    m_mutex.Lock();
}

StreamTable::Lock::~Lock()
{
    m_mutex.Unlock();
}

// First counted in, then the state is loaded: see ReadSections.
StreamTable::View::View(const StreamTable& table)
    : m_sections(table.m_sections),
      m_nSide(m_sections.Enter()),
      m_entries(table.Published())
{
}

StreamTable::View::~View()
{
    m_sections.Leave(m_nSide);
}

StreamTable::StreamTable()
{
    for (int i = MAX_WAITING; i > 0; --i)
        Free(&m_states[i]);
}

StreamTable::~StreamTable()
{
    const StreamEntries last = Published();
    last.ForEach([](MyArqSendCB& stream) { delete &stream; });
    DestroyAll(m_pPeriod);
    DestroyAll(m_pRemoved.load());
}

// Pointer and count need not be of one moment: behind a state's count nothing was ever shown.
StreamEntries StreamTable::Published() const
{
    const State* state = m_pCurrent.Load();
    return { state->streams, state->count.Load() };
}

StreamEntries StreamTable::Current() const
{
    return Published();
}

bool StreamTable::HasPlace() const
{
    return Published().Count() < MAX_STREAMS;
}

bool StreamTable::HasFreeState() const
{
    return m_nFree.load() > Published().Count();
}

void StreamTable::Append(std::unique_ptr<MyArqSendCB> stream)
{
    State* state = m_pCurrent.Load();
    const int32_t count = state->count.Load();
    state->streams[count] = stream.release();
    state->count.Store(count + 1);
}

void StreamTable::Remove(int32_t index)
{
    State* old = m_pCurrent.Load();
    State* state = TakeFreeState();
    const int32_t last = old->count.Load() - 1;
    std::copy_n(old->streams, last, state->streams);
    if (index != last)
        state->streams[index] = old->streams[last];
    state->count.Store(last);
    old->removed = old->streams[index];
    m_pCurrent.Store(state);
    Push(m_pRemoved, old);
}

void StreamTable::DestroyRemoved()
{
    if (m_pPeriod == nullptr) {
        m_pPeriod = m_pRemoved.exchange(nullptr);
        m_sections.BeginPeriod();
    }
    if (m_pPeriod != nullptr && m_sections.IsPeriodOver())
        DestroyAll(std::exchange(m_pPeriod, nullptr));
}

void StreamTable::DestroyAll(State* list)
{
    while (State* state = list) {
        list = state->next;
        delete std::exchange(state->removed, nullptr);
        Free(state);
    }
}

// Writers take one at a time, so a state at the head stays there until this one takes it or the destroyer
// puts another on top.
StreamTable::State* StreamTable::TakeFreeState()
{
    State* state = m_pFree.load();
    while (!m_pFree.compare_exchange_weak(state, state->next)) {}
    m_nFree.fetch_sub(1);
    return state;
}

void StreamTable::Free(State* state)
{
    Push(m_pFree, state);
    m_nFree.fetch_add(1);
}
