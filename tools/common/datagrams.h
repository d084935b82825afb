#pragma once

#include "common/endpoint.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <sys/socket.h>
#include <sys/uio.h>
#include <vector>

namespace common {

// Many datagrams read with one call. The memory is taken once; what was read stays valid until the next Read.
// Threads: one object is one thread's own.
class DatagramReader {
public:
    // Longer datagrams are cut off at sizeBytes and marked.
    explicit DatagramReader(size_t capacity = 64, size_t sizeBytes = 2048);

    // Reads what is there, at most `capacity`; never waits. The number of datagrams, 0 if there is none now, or -1 with
    // errno set. A peer's closed port (ECONNREFUSED) is no failure: it is passed over.
    int Read(int fd);

    std::span<const uint8_t> Data(int index) const;
    Endpoint From(int index) const { return FromSockaddr(m_senders[static_cast<size_t>(index)]); }
    bool IsCutOff(int index) const;
    size_t Capacity() const { return m_headers.size(); }

private:
    size_t m_nSizeBytes;
    std::vector<uint8_t> m_bytes; // one slice a datagram
    std::vector<sockaddr_in> m_senders;
    std::vector<iovec> m_parts;
    std::vector<mmsghdr> m_headers;
};

// Many datagrams sent with few calls. The bytes are not copied: they must stay until Flush.
// Threads: one object is one thread's own.
class DatagramWriter {
public:
    struct Result {
        size_t sent = 0;
        size_t refused
            = 0; // the system said no to these (unreachable, no rights, no room); lost as on a network
    };

    explicit DatagramWriter(size_t capacity = 64);

    bool IsFull() const { return m_nCount == m_headers.size(); }
    bool IsEmpty() const { return m_nCount == 0; }
    // Not when full. Without `to` it goes to the peer the socket is connected to.
    void Add(std::span<const uint8_t> data, const Endpoint& to);
    void Add(std::span<const uint8_t> data);
    // Sends all that was added and forgets it. Never waits: what finds no room in the socket is refused. An empty
    // writer does nothing.
    Result Flush(int fd);

private:
    mmsghdr& Next(std::span<const uint8_t> data);

    size_t m_nCount = 0;
    std::vector<sockaddr_in> m_receivers;
    std::vector<iovec> m_parts;
    std::vector<mmsghdr> m_headers;
};

} // namespace common
