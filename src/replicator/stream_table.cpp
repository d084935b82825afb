#include "replicator/stream_table.h"

#include "replicator/my_arq_send_cb.h"

StreamTable::~StreamTable()
{
    Clear();
}

void StreamTable::Clear()
{
    for (int32_t i = 0; i < Count(); ++i) {
        delete At(i);
        m_streams[i].Store(nullptr);
    }
}

void StreamTable::Append(std::unique_ptr<MyArqSendCB> stream)
{
    const int32_t index = Count();
    m_streams[index].Store(stream.release());
    m_nNumStreams.Store(index + 1);
}

// The old place of the entry that moves is not cleared: a reader that has passed its new place and still
// sees the old count meets it there, so no packet ever misses a stream because another one left.
std::unique_ptr<MyArqSendCB> StreamTable::Take(int32_t index)
{
    std::unique_ptr<MyArqSendCB> taken(At(index));
    m_streams[index].Store(nullptr);
    m_readers.WaitForReaders();
    const int32_t last = Count() - 1;
    if (index < last)
        m_streams[index].Store(At(last));
    m_nNumStreams.Store(last);
    return taken;
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
