#include "replicator/stream_table.h"

#include "replicator/my_arq_send_cb.h"

StreamTable::~StreamTable()
{
    Clear();
}

void StreamTable::Clear()
{
    const Entries& entries = *m_pEntries.Load();
    for (int32_t i = 0; i < entries.m_nNumStreams; ++i)
        delete entries.m_streams[i];
    Publish(m_states[0] = {});
}

void StreamTable::Append(std::unique_ptr<MyArqSendCB> stream)
{
    Entries& entries = CopyToSpare();
    entries.m_streams[entries.m_nNumStreams++] = stream.release();
    Publish(entries);
}

std::unique_ptr<MyArqSendCB> StreamTable::Take(int32_t index)
{
    Entries& entries = CopyToSpare();
    std::unique_ptr<MyArqSendCB> taken(entries.m_streams[index]);
    entries.m_streams[index] = entries.m_streams[--entries.m_nNumStreams];
    Publish(entries);
    return taken;
}

StreamTable::Entries& StreamTable::CopyToSpare()
{
    const Entries* current = m_pEntries.Load();
    Entries& spare = m_states[current == &m_states[0] ? 1 : 0];
    spare = *current;
    return spare;
}

// Walks of the old state end first: what only they could see may then be destroyed, and that state is spare.
void StreamTable::Publish(const Entries& entries)
{
    m_pEntries.Store(&entries);
    m_readers.WaitForReaders();
}

bool StreamTable::IndexOf(const MyArqSendCB* stream, int32_t* index) const
{
    if (stream == nullptr)
        return false;
    for (int32_t i = 0; i < Count(); ++i) {
        if (At(i) == stream) {
            *index = i;
            return true;
        }
    }
    return false;
}

MyArqSendCB* StreamTable::Find(in_addr_t addressNet, uint32_t streamId) const
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
