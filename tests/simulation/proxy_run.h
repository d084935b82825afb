#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "pacing/pacer_cb.h"
#include "replicator/arq_send_replicator.h"
#include "simulation/checker.h"
#include "simulation/config.h"
#include "simulation/machine.h"
#include "simulation/pacer_model.h"
#include "simulation/random.h"

namespace simulation {

// The proxy's main thread: builds the replicator and the pacer, hands in packets and takes all down again. What
// Proxy does besides, with its files and its input socket, is not here.
class ProxyRun {
public:
    ProxyRun(Machine& machine, const Config& config, Checker& checker,
        const std::vector<ReceiverIdentity>& receivers);

    // Runs as a thread of the machine until the input has ended and the silence after it is over.
    void Start();
    bool IsDone() const { return m_machine.fibers.IsDone(m_nFiber); }

    // The replicator, null before and behind its life.
    ArqSendReplicator* Replicator() { return m_pReplicator.get(); }
    void EndFaults() { m_bFaults = false; }
    // Nothing may wait in the pacer at the end of the calm, and its ticks keep up with the time.
    void CheckPacer() const;

private:
    // Hands packets to the real callback and tells the checker when.
    class WatchedSend : public PacerCB {
    public:
        WatchedSend(ProxyRun& run, ArqSendReplicator* replicator) : PacerCB(replicator), m_run(run) {}
        bool Send(PacketBuffer* packet) override;
        void SendTogether(PacketBuffer* const* packets, int32_t count) override;

    private:
        void TakeFromModel(const PacketBuffer& packet);

        ProxyRun& m_run;
    };
    class WatchedPacer : public CPacer {
    public:
        WatchedPacer(ProxyRun& run, bool& ok, CPacerSend* send, int32_t periodMs)
            : CPacer(ok, send, periodMs),
              m_run(run)
        {
        }
        int OnTimer() override;

    private:
        ProxyRun& m_run;
    };

    static void Main(void* run);
    void Build();
    void CreatePacer();
    void Deliver();
    void HandIn(int64_t count);
    void Submit(PacketBuffer* packet);
    int64_t BurstLength();
    int32_t PayloadBytes();
    void TakeDown();
    PacketBuffer* FillPacket();
    uint16_t NextSeq();
    int64_t NextGapUs(int64_t packets);

    Machine& m_machine;
    const Config& m_config;
    Checker& m_checker;
    Random m_random;
    std::string m_destinations;
    int m_nFiber = Fibers::NONE;
    bool m_bFaults = true;
    std::unique_ptr<ArqSendReplicator> m_pReplicator;
    std::unique_ptr<PacerCB> m_pPacerCB;
    std::optional<PacerModel> m_pacerModel;
    bool m_bOverflows = false; // the submission makes room
    int64_t m_nSentByTick = 0;
    int64_t m_nTicks = 0;
    int64_t m_nPacerStartUs = 0; // wall clock
    uint16_t m_usNextSeq;
    int32_t m_nPayloadBytes = 0; // of the last packet
};

} // namespace simulation
