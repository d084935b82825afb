#include "replicator/datagram_batch.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

DatagramBatch::DatagramBatch(PacketBufferPool* pool)
    : m_pPool(pool),
      m_nMost(pool != nullptr ? std::min(MOST_DATAGRAMS, pool->Count()) : 0),
      m_nCount(0),
      m_nNext(0)
{
}

void DatagramBatch::Read(int socket)
{
    if (m_pFirst == nullptr)
        m_pFirst = m_pPool->get();
    int count = m_bOneByOne ? ReadOne(socket) : ReadTogether(socket);
    if (count < 0 && errno == ENOSYS && !m_bOneByOne) {
        m_bOneByOne = true;
        count = ReadOne(socket);
    }
    m_nCount
        = static_cast<uint32_t>(std::max(count, 0)); // poll may report what a bad checksum then takes away
    m_nNext = 0;
    m_bWasFull = m_nCount > 0 && m_nCount == (m_bOneByOne ? 1 : m_nMost);
}

DatagramBatch::Datagram DatagramBatch::Next()
{
    const uint32_t index = m_nNext++;
    const uint32_t bytes = m_messages[index].msg_len;
    PacketBuffer* packet = index == 0 ? std::exchange(m_pFirst, nullptr) : m_pPool->get();
    if (index != 0)
        std::memcpy(packet->Data(), m_room[index], bytes);
    packet->SetLength(static_cast<int32_t>(bytes));
    return { packet, m_sources[index].sin_addr.s_addr, m_sources[index].sin_port };
}

int DatagramBatch::ReadTogether(int socket)
{
    for (uint32_t i = 0; i < m_nMost; ++i) {
        m_pieces[i] = { i == 0 ? m_pFirst->Data() : m_room[i], ROOM_BYTES };
        msghdr& header = m_messages[i].msg_hdr;
        header.msg_name = &m_sources[i];
        header.msg_namelen = sizeof(m_sources[i]);
        header.msg_iov = &m_pieces[i];
        header.msg_iovlen = 1;
    }
    return recvmmsg(socket, m_messages, m_nMost, MSG_DONTWAIT, nullptr);
}

int DatagramBatch::ReadOne(int socket)
{
    socklen_t sourceBytes = sizeof(m_sources[0]);
    const ssize_t received = recvfrom(socket, m_pFirst->Data(), ROOM_BYTES, MSG_DONTWAIT,
        reinterpret_cast<sockaddr*>(&m_sources[0]), &sourceBytes);
    if (received < 0)
        return -1;
    m_messages[0].msg_len = static_cast<unsigned>(received);
    return 1;
}
