#include "common/datagrams.h"

#include <cerrno>

namespace common {

namespace {

// A socket keeps the refusal of a datagram sent earlier and reports it once, in place of the next call.
constexpr int PASSED_OVER = 8;

bool IsOldNews(int error)
{
    return error == EINTR || error == ECONNREFUSED || error == EHOSTUNREACH || error == ENETUNREACH;
}

} // namespace

DatagramReader::DatagramReader(size_t capacity, size_t sizeBytes)
    : m_nSizeBytes(sizeBytes),
      m_bytes(capacity * sizeBytes),
      m_senders(capacity),
      m_parts(capacity),
      m_headers(capacity)
{
    for (size_t i = 0; i < capacity; i++) {
        m_parts[i] = { m_bytes.data() + i * sizeBytes, sizeBytes };
        m_headers[i].msg_hdr.msg_iov = &m_parts[i];
        m_headers[i].msg_hdr.msg_iovlen = 1;
        m_headers[i].msg_hdr.msg_name = &m_senders[i];
    }
}

int DatagramReader::Read(int fd)
{
    for (mmsghdr& header : m_headers)
        header.msg_hdr.msg_namelen = sizeof(sockaddr_in); // the call before wrote what it used
    for (int i = 0; i < PASSED_OVER; i++) {
        const int count
            = recvmmsg(fd, m_headers.data(), static_cast<unsigned>(m_headers.size()), MSG_DONTWAIT, nullptr);
        if (count >= 0)
            return count;
        if (errno == EAGAIN)
            return 0;
        if (!IsOldNews(errno))
            return -1;
    }
    return 0;
}

std::span<const uint8_t> DatagramReader::Data(int index) const
{
    const auto place = static_cast<size_t>(index);
    return { m_bytes.data() + place * m_nSizeBytes, m_headers[place].msg_len };
}

bool DatagramReader::IsCutOff(int index) const
{
    return (m_headers[static_cast<size_t>(index)].msg_hdr.msg_flags & MSG_TRUNC) != 0;
}

DatagramWriter::DatagramWriter(size_t capacity)
    : m_receivers(capacity),
      m_parts(capacity),
      m_headers(capacity)
{
    for (size_t i = 0; i < capacity; i++) {
        m_headers[i].msg_hdr.msg_iov = &m_parts[i];
        m_headers[i].msg_hdr.msg_iovlen = 1;
    }
}

mmsghdr& DatagramWriter::Next(std::span<const uint8_t> data)
{
    // The kernel only reads what is sent, though its record has room for reading into as well.
    m_parts[m_nCount]
        = { const_cast<uint8_t*>(data.data()), data.size() }; // NOLINT(cppcoreguidelines-pro-type-const-cast)
    return m_headers[m_nCount++];
}

void DatagramWriter::Add(std::span<const uint8_t> data, const Endpoint& to)
{
    m_receivers[m_nCount] = ToSockaddr(to);
    sockaddr_in* receiver = &m_receivers[m_nCount];
    mmsghdr& header = Next(data);
    header.msg_hdr.msg_name = receiver;
    header.msg_hdr.msg_namelen = sizeof(sockaddr_in);
}

void DatagramWriter::Add(std::span<const uint8_t> data)
{
    mmsghdr& header = Next(data);
    header.msg_hdr.msg_name = nullptr;
    header.msg_hdr.msg_namelen = 0;
}

DatagramWriter::Result DatagramWriter::Flush(int fd)
{
    Result result;
    size_t done = 0;
    int tries = 0;
    while (done < m_nCount) {
        const int count = sendmmsg(
            fd, m_headers.data() + done, static_cast<unsigned>(m_nCount - done), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count > 0) {
            done += static_cast<size_t>(count);
            result.sent += static_cast<size_t>(count);
            tries = 0;
        } else if (count == 0 || !IsOldNews(errno) || ++tries == PASSED_OVER) {
            done++; // this one goes no way; the next may
            result.refused++;
            tries = 0;
        }
    }
    m_nCount = 0;
    return result;
}

} // namespace common
