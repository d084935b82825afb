#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <memory>

#include "input/packet_buffer.h"
#include "replicator/crowd_gauge.h"
#include "replicator/datagram_batch.h"
#include "replicator/shared_socket.h"

// One UDP socket on which receivers talk to the proxy, with a ring of buffers for what arrives.
//
// Threads: made and destroyed by the replicator's owner; in between the listen thread alone calls Init
// and OnPacket and reads the socket.
class SocketListener {
public:
    // Listens on `port` (host order) with `socket`, which stays open as long as any of its holders, or with
    // a socket of its own when that is empty. The pool has `poolSize` buffers. Clears ok when memory is
    // short.
    SocketListener(SharedSocket socket, uint16_t port, bool& ok, uint32_t poolSize);
    SocketListener(const SocketListener&) = delete;
    SocketListener& operator=(const SocketListener&) = delete;
    virtual ~SocketListener() = default;

    // Makes the socket usable: opens it if there is none and binds it to the port, on all addresses. In
    // duplicate mode it takes a duplicate of the socket instead and binds nothing. Clears ok on failure.
    virtual void Init(bool& ok);

    // What to do with a datagram from `addressNet`:`portNet` (both network order). The buffer is this
    // listener's and is reused after as many datagrams as the pool has buffers.
    virtual int OnPacket(PacketBuffer* packet, in_addr_t addressNet, uint16_t portNet) = 0;

    // Passes one datagram to OnPacket, of those that one call has read; reads when it holds none. False when
    // none is there; never waits for one.
    bool Receive();

    // Whether it has read datagrams that it has not passed on yet: no wait tells of them.
    bool HoldsDatagram() const { return m_batch.HasNext(); }
    // Whether another Receive may have one; false when the socket was found
    // empty and what was read is passed on.
    bool MayHaveMore() const { return m_batch.HasNext() || m_batch.WasFull(); }

    // Whether datagrams keep waiting; see CrowdGauge. False on a system that does not tell.
    bool IsCrowded(uint32_t nowMs) { return m_crowd.IsCrowded(nowMs); }

    // The descriptor, -1 before Init has made one.
    int Socket() const { return m_socket.Get(); }
    uint16_t Port() const { return m_usPort; }
    bool OwnsSocket() const { return m_bOwnsSocket; }
    void SetDuplicateMode(bool isOn) { m_bDuplicateMode = isOn; }

private:
    void InitDuplicate(bool& ok);
    void Read();

    SharedSocket m_socket;
    uint16_t m_usPort;
    bool m_bOwnsSocket = false; // Init made the socket or duplicated it
    bool m_bDuplicateMode = false; // never set by the replicator
    std::unique_ptr<PacketBufferPool> m_pool;
    DatagramBatch m_batch;
    CrowdGauge m_crowd;
};
