#pragma once

#include <cstdint>
#include <memory>

#include "arq/arq_send.h"

struct PacketBuffer;

// Where an ARQ engine puts its packets: the output stream that it belongs to. A test puts a recorder here.
class CArqSendCB {
public:
    CArqSendCB() = default;
    CArqSendCB(const CArqSendCB&) = delete;
    CArqSendCB& operator=(const CArqSendCB&) = delete;
    virtual ~CArqSendCB() = default;

    // Sends the packet as one datagram. Returns 1 when it was handed to the socket or held back on
    // purpose, 0 when the socket refused it. Called by the sending threads and by the listen thread at once.
    virtual int SendData(PacketBuffer* packet) = 0;

    // Sends packets from the front of these as one train, without waiting. Returns how many have left, 0 when
    // they cannot leave so: the caller sends the others by SendData, which counts and reports them. Called by
    // the same threads.
    virtual int32_t SendAtOnce(PacketBuffer* const* /*packets*/, int32_t /*count*/) { return 0; }

    // The stream's engine. The engine's constructor puts itself here: from then on it belongs to this record.
    std::unique_ptr<ArqSend> m_pEngine;
};
