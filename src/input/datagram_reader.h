#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <memory>

#include "base/most_together.h"
#include "input/packet_buffer.h"

// One datagram that a DatagramReader has received; good until it receives again.
struct ReceivedDatagram {
    const uint8_t* data;
    int32_t length; // bytes, a slice at most: what is longer has been cut; 0: an empty datagram
    sockaddr_in source;

    // Copies the bytes into the slice, unless that is where they were received.
    void PutInto(uint8_t* slice) const;
};

// Receives datagrams from a socket, one or all that wait there. It owns its memory.
//
// Only the first of several is received into the caller's slice. Which slice is the next one's, and when that
// may lose what it holds of its last use, shows only when the one before has been handled: the others come
// into memory of the reader's own, from where a copy costs a hundredth of what a system call does.
//
// Slices are of PacketBufferPool::SLICE_BYTES, `flags` those of recvfrom. Both operations return how many
// datagrams there are: 0, with errno, when the wait or the call failed.
//
// Threads: none of its own; belongs to the thread that receives.
class DatagramReader {
public:
    // Receives `most` datagrams a call at most, which are MOST_TOGETHER or fewer. Without memory for the
    // others it receives one.
    explicit DatagramReader(int32_t most);
    DatagramReader(const DatagramReader&) = delete;
    DatagramReader& operator=(const DatagramReader&) = delete;
    ~DatagramReader() = default;

    // Waits for one datagram, as long as the flags and the socket's receive time-out allow, and receives it.
    int32_t ReceiveOne(int socket, uint8_t* slice, int flags = 0);

    // The same, and takes those with it that have come too. For a single datagram it costs more than
    // ReceiveOne: the kernel looks for a second one.
    int32_t ReceiveMany(int socket, uint8_t* slice, int flags = 0);

    // How many ReceiveMany receives at most: 1 where there is no way to receive more.
    int32_t Most() const { return m_nMost; }

    // One of those that the last call received, in their order from 0 on.
    ReceivedDatagram Datagram(int32_t index) const;

private:
    int32_t m_nMost;
    const std::unique_ptr<uint8_t[]> m_others; // a slice for each but the first
    mmsghdr m_messages[MOST_TOGETHER] {};
    iovec m_pieces[MOST_TOGETHER] {};
    sockaddr_in m_sources[MOST_TOGETHER] {};
};
