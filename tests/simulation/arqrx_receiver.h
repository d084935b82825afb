#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "simulation/arqrx_life.h"
#include "simulation/random.h"
#include "simulation/simulated_receiver.h"

namespace simulation {

// The receiver of tools/arqrx with a steady clock of its own, which runs a little fast or slow. While there are faults
// its cable is pulled out now and then, it moves to another port, gets what is not from the proxy, and is ended and
// started again. Times are virtual where nothing else is said.
class ArqrxReceiver : public SimulatedReceiver, private ArqrxLife::Sender, private Action {
public:
    ArqrxReceiver(Machine& machine, const Config& config, const ReceiverIdentity& identity, Network& network);

    void Start() override;
    void BeginCalm() override;
    void CheckNothingMissing() const override;
    void FallSilent() override;
    void CheckSilent() const override;

    void OnArrival(const Delivery& delivery) override;
    void TellVerdict(uint16_t seq, EngineModel::Verdict verdict) override;
    void TellSource(uint16_t seq, const std::vector<uint8_t>& bytes) override;
    void OnClockStep(int64_t byUs) override;

    uint64_t Recovered() const override { return Played().recovered; }
    PlayedTotals Played() const override;

private:
    enum Timer : uint64_t { BEGIN, WAKE, LOOK };

    void Send(arqrx::ProxyPort port, std::span<const uint8_t> bytes) override;
    void OnEvent(uint64_t argument) override;

    void DrawSettings();
    int64_t NowUs() const { return m_machine.clock.NowUs(); }
    int64_t LocalUs(int64_t atUs) const { return m_nLocalStartUs + atUs + atUs * m_nDriftPpm / 1000000; }
    void At(int64_t inUs, Timer timer);
    void Begin();
    void End(bool isLeaving);
    void Wake();
    void AskForWakeUp();
    void LookAtItself();
    void MakeNoise();
    void Disturb(int64_t untilUs);
    bool IsCutOff() const { return NowUs() < m_nCutOffUntilUs; }
    uint16_t Port() const { return m_identity.Port(m_nMoves); }

    Machine& m_machine;
    const Config& m_config;
    const ReceiverIdentity m_identity;
    Network& m_network;
    Random m_random;
    arqrx::Settings m_settings;
    ArqrxSource m_source;
    int64_t m_nLocalStartUs;
    int64_t m_nDriftPpm; // microseconds gained in each second
    std::unique_ptr<ArqrxLife> m_life; // null while it is not running
    PlayedTotals m_before; // of the lives that are over
    int64_t m_nWakeAtUs = INT64_MAX; // there is an event for it
    int64_t m_nCutOffUntilUs = 0;
    int m_nMoves = 0;
    bool m_bCalm = false;
    bool m_bSilent = false;
};

} // namespace simulation
