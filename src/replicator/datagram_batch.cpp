#include "replicator/datagram_batch.h"

#include <sys/socket.h>

#include <utility>

void DatagramBatch::Read(int socket)
{
    if (m_pFirst == nullptr)
        m_pFirst = m_pPool->get();
    // None though poll has reported one: it does so for a datagram whose bad
    // checksum is found only by reading.
    m_nCount = m_reader.ReceiveMany(socket, m_pFirst->Data(), MSG_DONTWAIT);
    m_nNext = 0;
}

DatagramBatch::Datagram DatagramBatch::Next()
{
    const ReceivedDatagram datagram = m_reader.Datagram(m_nNext++);
    PacketBuffer* packet = m_pFirst != nullptr ? std::exchange(m_pFirst, nullptr) : m_pPool->get();
    datagram.PutInto(packet->Data());
    packet->SetLength(datagram.length);
    return { packet, datagram.source.sin_addr.s_addr, datagram.source.sin_port };
}
