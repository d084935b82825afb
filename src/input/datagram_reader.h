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
};

// Receives datagrams from a socket, one or all that wait there. It owns its memory and not the socket.
//
// Only the first of several is received into the caller's slice. Which slice is the next one's depends on whether
// the one before was empty, and what a slice holds of its last use has to stay until then: the others come into
// memory of the reader's own, from where a copy costs a hundredth of what a system call does.
//
// Threads: none of its own; belongs to the thread that receives.
class DatagramReader {
public:
    // Without memory for the others it receives one datagram a call.
    explicit DatagramReader(int socket);
    DatagramReader(const DatagramReader&) = delete;
    DatagramReader& operator=(const DatagramReader&) = delete;
    ~DatagramReader() = default;

    // Waits for one datagram, as long as the socket's receive time-out allows, and receives it into `slice`
    // (PacketBufferPool::SLICE_BYTES). Returns how many there are: 0 when the wait or the call failed.
    int32_t ReceiveOne(uint8_t* slice);

    // The same, and takes those with it that have come too, MOST_TOGETHER in all. For a single datagram it costs more
    // than ReceiveOne: the kernel looks for a second one.
    int32_t ReceiveMany(uint8_t* slice);

    // One of those that the last call received, in their order from 0 on.
    ReceivedDatagram Datagram(int32_t index) const;

private:
    const int m_socket;
    const std::unique_ptr<uint8_t[]> m_others; // a slice for each but the first
    bool m_bOnlyOne; // no memory, or the kernel or a filter of system calls has no call for many
    mmsghdr m_messages[MOST_TOGETHER];
    iovec m_pieces[MOST_TOGETHER];
    sockaddr_in m_sources[MOST_TOGETHER];
};
