#pragma once

#include <memory>

#include "pacing/c_pacer.h"

class ArqSendReplicator;

// Hands paced packets to the replicator's fan-out, and owns the pacer.
//
// Threads: Send on the timer thread and the submitting thread; the rest on main.
class PacerCB : public CPacerSend {
public:
    // The replicator is not owned.
    explicit PacerCB(ArqSendReplicator* replicator) : m_pReplicator(replicator) {}
    // Reports overflows, if there were any, and destroys the pacer.
    ~PacerCB() override;

    bool Send(PacketBuffer* packet) override;
    void SendTogether(PacketBuffer* const* packets, int32_t count) override;

    // Null when it could not be made: packets then go straight to the replicator.
    std::unique_ptr<CPacer> m_pPacer;

private:
    ArqSendReplicator* m_pReplicator;
};
