#pragma once

#include <utility>

#include "replicator/socket_listener.h"

class ArqSendReplicator;

// Routes what receivers send into the replicator: pings or requests, with the stream ID of their tag.
//
// Threads: as SocketListener.
class MySocketListener : public SocketListener {
public:
    enum class Mode { Requests, Pings };

    // The replicator is not owned and outlives the listener. The rest is as for SocketListener.
    MySocketListener(ArqSendReplicator& replicator, Mode mode, SharedSocket socket, uint16_t port, bool& ok,
        uint32_t poolSize)
        : SocketListener(std::move(socket), port, ok, poolSize),
          m_replicator(replicator),
          m_mode(mode)
    {
    }

    int OnPacket(PacketBuffer* packet, in_addr_t addressNet, uint16_t portNet) override;

private:
    ArqSendReplicator& m_replicator;
    Mode m_mode;
};
