#include "input/datagram_reader.h"

#include <cerrno>
#include <cstring>
#include <new>

void ReceivedDatagram::PutInto(uint8_t* slice) const
{
    if (data != slice)
        std::memcpy(slice, data, static_cast<size_t>(length));
}

DatagramReader::DatagramReader(int32_t most)
    : m_nMost(most),
      m_others(new (std::nothrow) uint8_t[static_cast<size_t>(most - 1) * PacketBufferPool::SLICE_BYTES])
{
    if (!m_others)
        m_nMost = 1;
    for (int32_t i = 0; i < m_nMost; ++i) {
        uint8_t* slice
            = i == 0 ? nullptr : &m_others[static_cast<size_t>(i - 1) * PacketBufferPool::SLICE_BYTES];
        m_pieces[i] = { slice, PacketBufferPool::SLICE_BYTES };
        msghdr& header = m_messages[i].msg_hdr;
        header.msg_name = &m_sources[i];
        header.msg_namelen = sizeof(m_sources[i]); // what the kernel writes here is the same again
        header.msg_iov = &m_pieces[i];
        header.msg_iovlen = 1;
    }
}

int32_t DatagramReader::ReceiveOne(int socket, uint8_t* slice, int flags)
{
    m_pieces[0].iov_base = slice;
    socklen_t sourceBytes = sizeof(m_sources[0]);
    const ssize_t received = recvfrom(socket, slice, PacketBufferPool::SLICE_BYTES, flags,
        reinterpret_cast<sockaddr*>(&m_sources[0]), &sourceBytes);
    if (received < 0)
        return 0;
    m_messages[0].msg_len = static_cast<unsigned>(received);
    return 1;
}

int32_t DatagramReader::ReceiveMany(int socket, uint8_t* slice, int flags)
{
    if (m_nMost == 1)
        return ReceiveOne(socket, slice, flags);
    m_pieces[0].iov_base = slice;
    const int received
        = recvmmsg(socket, m_messages, static_cast<unsigned>(m_nMost), flags | MSG_WAITFORONE, nullptr);
    if (received >= 0)
        return received;
    if (errno != ENOSYS && errno != EPERM)
        return 0;
    m_nMost = 1; // no receive has these reasons: the kernel or a filter of system calls has no call for many
    return ReceiveOne(socket, slice, flags);
}

ReceivedDatagram DatagramReader::Datagram(int32_t index) const
{
    return { static_cast<const uint8_t*>(m_pieces[index].iov_base),
        static_cast<int32_t>(m_messages[index].msg_len), m_sources[index] };
}
