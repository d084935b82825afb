#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <memory>

#include "base/plain_word.h"
#include "replicator/read_section.h"

class MyArqSendCB;

// The table of output streams: entries 0 to Count() - 1 are in use and kept dense. It owns them.
//
// Threads: Append and Take one at a time, under the replicator lock and never inside a ReadSection.
// Everyone may read: under that lock, or without it inside a ReadSection, where a pointer once read stays
// valid until the section ends.
class StreamTable {
public:
    static constexpr int32_t MAX_STREAMS = 50;

    StreamTable() = default;
    StreamTable(const StreamTable&) = delete;
    StreamTable& operator=(const StreamTable&) = delete;
    ~StreamTable();

    int32_t Count() const { return m_pEntries.Load()->m_nNumStreams; }
    MyArqSendCB* At(int32_t index) const { return m_pEntries.Load()->m_streams[index]; }
    ReadSections& Readers() const { return m_readers; }

    // Takes over the stream and publishes it as the last entry; there must be room.
    void Append(std::unique_ptr<MyArqSendCB> stream);

    // Takes entry `index` out and gives it to the caller once no reader can still be using it. The last
    // entry moves into its place: the table stays dense, its order changes.
    std::unique_ptr<MyArqSendCB> Take(int32_t index);

    // Destroys every stream. Nobody else may use the table any more.
    void Clear();

    // The index of a stream in the table; false for null or a stream that is not there.
    bool IndexOf(const MyArqSendCB* stream, int32_t* index) const;

    // The stream with that ID, if `streamId` is not 0 and known; else the first one without an ID that
    // sends to `addressNet`; else null.
    MyArqSendCB* Find(in_addr_t addressNet, uint32_t streamId) const;

    // Calls visit(stream) for each entry, in table order. The walk sees one state of the table: a stream that
    // stays is met exactly once, whatever comes or goes meanwhile.
    template <typename Visitor>
    void ForEach(Visitor visit) const
    {
        const Entries& entries = *m_pEntries.Load();
        for (int32_t i = 0; i < entries.m_nNumStreams; ++i)
            visit(*entries.m_streams[i]);
    }

private:
    // One state of the table; never changed while a reader may see it.
    struct Entries {
        MyArqSendCB* m_streams[MAX_STREAMS]; // owned by the table
        int32_t m_nNumStreams;
    };

    Entries& CopyToSpare();
    void Publish(const Entries& entries);

    Entries m_states[2] {}; // what readers see, and the spare that a writer prepares
    PublishedWord<const Entries*> m_pEntries { &m_states[0] };
    mutable ReadSections m_readers;
};
