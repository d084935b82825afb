#include "input/datagram_reader.h"

#include <cerrno>
#include <new>

namespace {

constexpr size_t OTHERS = MOST_TOGETHER - 1;

} // namespace

DatagramReader::DatagramReader(int socket)
    : m_socket(socket),
      m_others(new (std::nothrow) uint8_t[OTHERS * PacketBufferPool::SLICE_BYTES]),
      m_bOnlyOne(!m_others)
{
    for (size_t i = 0; i < MOST_TOGETHER; ++i) {
        uint8_t* slice = i == 0 || m_bOnlyOne ? nullptr : &m_others[(i - 1) * PacketBufferPool::SLICE_BYTES];
        m_pieces[i] = { slice, PacketBufferPool::SLICE_BYTES };
        m_sources[i] = {};
        m_messages[i] = {};
        m_messages[i].msg_hdr.msg_name = &m_sources[i];
        m_messages[i].msg_hdr.msg_namelen = sizeof(m_sources[i]);
        m_messages[i].msg_hdr.msg_iov = &m_pieces[i];
        m_messages[i].msg_hdr.msg_iovlen = 1;
    }
}

int32_t DatagramReader::ReceiveOne(uint8_t* slice)
{
    m_pieces[0].iov_base = slice;
    socklen_t sourceBytes = sizeof(m_sources[0]);
    const ssize_t received = recvfrom(m_socket, slice, PacketBufferPool::SLICE_BYTES, 0,
        reinterpret_cast<sockaddr*>(&m_sources[0]), &sourceBytes);
    if (received < 0)
        return 0;
    m_messages[0].msg_len = static_cast<unsigned>(received);
    return 1;
}

int32_t DatagramReader::ReceiveMany(uint8_t* slice)
{
    if (m_bOnlyOne)
        return ReceiveOne(slice);
    m_pieces[0].iov_base = slice;
    const int received = recvmmsg(m_socket, m_messages, MOST_TOGETHER, MSG_WAITFORONE, nullptr);
    if (received >= 0)
        return received;
    // No receive has these reasons; what fails for another one is tried again by the caller.
    m_bOnlyOne = errno == ENOSYS || errno == EPERM;
    return 0;
}

ReceivedDatagram DatagramReader::Datagram(int32_t index) const
{
    return { static_cast<const uint8_t*>(m_pieces[index].iov_base),
        static_cast<int32_t>(m_messages[index].msg_len), m_sources[index] };
}
