#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>

#include "input/packet_buffer.h"

// Datagrams that one call has read from a socket, until they are handed on one by one. What fewer were read than
// asked for tells that the socket is empty, without another call.
//
// Threads: one, which is the pool's.
class DatagramBatch {
public:
    static constexpr uint32_t MOST_DATAGRAMS
        = 16; // a system call costs less than a sixteenth of these answers

    struct Datagram {
        PacketBuffer* packet; // the pool's, in ring order
        in_addr_t addressNet; // of the sender, as the next
        uint16_t portNet;
    };

    // Reads into buffers of the pool (not owned; null: nothing may be read), as many as it has at most.
    explicit DatagramBatch(PacketBufferPool* pool);
    DatagramBatch(const DatagramBatch&) = delete;
    DatagramBatch& operator=(const DatagramBatch&) = delete;

    // Reads what is there and never waits. Only when all that was read is handed on.
    void Read(int socket);

    // Hands on the next datagram. Only when there is one.
    Datagram Next();
    bool HasNext() const { return m_nNext < m_nCount; }

    // Of the last reading: how many there were, and whether there may be more.
    uint32_t Count() const { return m_nCount; }
    bool WasFull() const { return m_bWasFull; }

private:
    int ReadTogether(int socket);
    int ReadOne(int socket);

    static constexpr uint32_t ROOM_BYTES = PacketBufferPool::SLICE_BYTES;

    PacketBufferPool* m_pPool;
    const uint32_t m_nMost; // datagrams of one reading
    uint32_t m_nCount; // datagrams of the last reading
    uint32_t m_nNext; // index of the next datagram
    bool m_bWasFull = false;
    bool m_bOneByOne = false; // the kernel has no call for several
    PacketBuffer* m_pFirst
        = nullptr; // the pool's, for the first datagram of a reading; null: none was taken yet
    // The others wait here. They come into their buffers when they are handed on: a request that claims more numbers
    // than it has is read on behind its end, where the next buffers are, and those are to hold what came long before.
    uint8_t m_room[MOST_DATAGRAMS][ROOM_BYTES];
    sockaddr_in m_sources[MOST_DATAGRAMS] {};
    iovec m_pieces[MOST_DATAGRAMS] {};
    mmsghdr m_messages[MOST_DATAGRAMS] {};
};
