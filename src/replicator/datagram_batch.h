#pragma once

#include <netinet/in.h>

#include <cstdint>

#include "input/datagram_reader.h"
#include "input/packet_buffer.h"

// Datagrams that one call has read from a socket, until they are handed on one by one. What fewer were read
// than asked for tells that the socket is empty, without another call.
//
// A datagram comes into its buffer when it is handed on, not when it is read: a request that claims more
// numbers than it has is read on behind its end, where the next buffers are, and those are to hold what came
// long before.
//
// Threads: one, which is the pool's.
class DatagramBatch {
public:
    static constexpr int32_t MOST_DATAGRAMS = 16; // one call costs little beside so many answers

    struct Datagram {
        PacketBuffer* packet; // the pool's, in ring order
        in_addr_t addressNet; // of the sender, as the next
        uint16_t portNet;
    };

    // Reads into buffers of the pool (not owned; null: nothing may be read).
    explicit DatagramBatch(PacketBufferPool* pool) : m_pPool(pool) {}
    DatagramBatch(const DatagramBatch&) = delete;
    DatagramBatch& operator=(const DatagramBatch&) = delete;

    // Reads what is there and never waits. Only when all that was read is handed on.
    void Read(int socket);

    // Hands on the next datagram. Only when there is one.
    Datagram Next();
    bool HasNext() const { return m_nNext < m_nCount; }

    // Of the last reading: how many there were, and whether there may be more.
    int32_t Count() const { return m_nCount; }
    bool WasFull() const { return m_nCount == m_reader.Most(); }

private:
    PacketBufferPool* m_pPool;
    DatagramReader m_reader { MOST_DATAGRAMS };
    int32_t m_nCount = 0; // datagrams of the last reading
    int32_t m_nNext = 0; // index of the next datagram
    PacketBuffer* m_pFirst
        = nullptr; // the pool's, for the first datagram of a reading; null: none was taken yet
};
