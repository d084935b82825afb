#pragma once

#include <netinet/in.h>

#include <atomic>
#include <cstdint>
#include <memory>

#include "base/mutex.h"
#include "base/plain_word.h"
#include "replicator/read_section.h"

class MyArqSendCB;

// One state of the stream table, as whoever holds a View or the lock meets it. A walk sees this one state: a
// stream that stays is met exactly once, whatever comes or goes meanwhile.
class StreamEntries {
public:
    int32_t Count() const { return m_nCount; }
    MyArqSendCB& At(int32_t index) const { return *m_pStreams[index]; }

    // Calls visit(stream) for each entry, in table order.
    template <typename Visitor>
    void ForEach(Visitor visit) const
    {
        for (int32_t i = 0; i < m_nCount; ++i)
            visit(*m_pStreams[i]);
    }

    // The stream with that ID, if `streamId` is not 0 and known; else the first one without an ID that
    // sends to `addressNet`; else null.
    MyArqSendCB* Find(in_addr_t addressNet, uint32_t streamId) const;

    // The index of a stream that is in the table; false for null or any other.
    bool FindIndex(const MyArqSendCB* stream, int32_t* index) const;

private:
    friend class StreamTable;
    StreamEntries(MyArqSendCB* const* streams, int32_t count) : m_pStreams(streams), m_nCount(count) {}

    MyArqSendCB* const* m_pStreams;
    int32_t m_nCount;
};

// The table of output streams, kept dense. It owns them, those too that have left but may still be in use.
//
// Threads: writers hold m_mutex, which is the replicator lock. Readers hold a View and no lock, and may stand
// in a blocked send as long as they like: no writer waits for them. What was removed is destroyed later by
// one thread, the destroyer, which holds no lock and serves nobody.
class StreamTable {
public:
    static constexpr int32_t MAX_STREAMS = 50;
    // Removed streams that may wait to be destroyed, each with the state of the table that it was last seen
    // in. A stream joins only while its own removal will find a free state, so that a removal never fails.
    static constexpr int32_t MAX_WAITING = 150;

    // Holds the lock for the length of a block. Not inside a View: media and requests never wait for
    // management, and what they look at could not be destroyed meanwhile.
    class SCOPED_CAPABILITY Lock {
    public:
        explicit Lock(StreamTable& table) ACQUIRE(table.m_mutex) EXCLUDES(table.m_sections);
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;
        ~Lock() RELEASE();

    private:
        Mutex& m_mutex;
    };

    // A read section over the table as it was on entering: what is met here lives until the view ends.
    class SCOPED_CAPABILITY View {
    public:
        explicit View(const StreamTable& table) ACQUIRE_SHARED(table.m_sections);
        View(const View&) = delete;
        View& operator=(const View&) = delete;
        ~View() RELEASE_GENERIC();

        int32_t Count() const { return m_entries.Count(); }
        MyArqSendCB& At(int32_t index) const { return m_entries.At(index); }
        MyArqSendCB* Find(in_addr_t addressNet, uint32_t streamId) const
        {
            return m_entries.Find(addressNet, streamId);
        }
        template <typename Visitor>
        void ForEach(Visitor visit) const
        {
            m_entries.ForEach(visit);
        }

    private:
        ReadSections& m_sections;
        const unsigned m_nSide;
        const StreamEntries m_entries;
    };

    StreamTable();
    StreamTable(const StreamTable&) = delete;
    StreamTable& operator=(const StreamTable&) = delete;
    // Destroys every stream. No thread may use the table any more.
    ~StreamTable();

    // The entries as they are while the caller holds the lock.
    StreamEntries Current() const REQUIRES(m_mutex);

    // Whether another stream may join: false at MAX_STREAMS.
    bool HasPlace() const REQUIRES(m_mutex);
    // Whether another stream could leave again: false for the moment when too many wait to be destroyed.
    bool HasFreeState() const REQUIRES(m_mutex);

    // Takes over the stream and publishes it as the last entry. Both conditions above must hold.
    void Append(std::unique_ptr<MyArqSendCB> stream) REQUIRES(m_mutex);

    // Takes entry `index` out; the last entry moves into its place. Never waits: readers may use the stream
    // until the destroyer finds that they have left.
    void Remove(int32_t index) REQUIRES(m_mutex);

    // One look of the destroyer: destroys what was removed if no reader can be using it any more, and
    // otherwise leaves it for a later look. Never waits.
    void DestroyRemoved();

    // Removed streams that still wait to be destroyed.
    int32_t Waiting() const { return MAX_WAITING - m_nFree.load(); }

    Mutex m_mutex; // the replicator lock; taken through Lock only
    mutable ReadSections m_sections; // entered through View only

private:
    // Entries from the count on were never shown to a reader of this state: an append writes there and then
    // publishes the count. A removal changes what readers may be looking at, so it takes another state.
    struct State {
        MyArqSendCB* streams[MAX_STREAMS];
        PublishedWord<int32_t> count;
        MyArqSendCB* removed; // the stream that left with this state
        State* next; // in one of the lists below
    };

    StreamEntries Published() const;
    void DestroyAll(State* list);
    State* TakeFreeState() REQUIRES(m_mutex);
    void Free(State* state);

    State m_states[1 + MAX_WAITING] {};
    PublishedWord<State*> m_pCurrent { &m_states[0] };
    std::atomic<State*> m_pFree { nullptr }; // the destroyer puts in, writers take out
    std::atomic<int32_t> m_nFree { 0 };
    std::atomic<State*> m_pRemoved { nullptr }; // writers put in, the destroyer takes all at once
    State* m_pPeriod = nullptr; // what waits for the present period to end; the destroyer's own
};
