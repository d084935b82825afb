#pragma once

#include <cstdint>
#include <vector>

#include "simulation/checker.h"
#include "simulation/config.h"
#include "simulation/machine.h"
#include "simulation/network.h"
#include "simulation/random.h"
#include "simulation/simulated_receiver.h"
#include "simulation/stream_book.h"

namespace simulation {

// A receiver: it pings, notices which numbers are missing and asks for them, and has bad habits while there are
// faults: it falls silent, moves to another port, leaves, asks for anything, sends what is no request.
class ModelReceiver : public SimulatedReceiver, public Action {
public:
    ModelReceiver(Machine& machine, const Config& config, const ReceiverIdentity& identity, Network& network);

    void Start() override;
    void BeginCalm() override;
    void FallSilent() override { m_bSilent = true; }
    // But for what it noticed just now, as a slow pacer may still be sending.
    void CheckNothingMissing() const override;

    void OnArrival(const Delivery& delivery) override;
    void TellVerdict(uint16_t seq, EngineModel::Verdict verdict) override;
    uint64_t Recovered() const override { return m_nRecovered; }

    void OnEvent(uint64_t argument) override;

private:
    enum Timer : uint64_t { PING, ASK, LOOK };

    struct Missing {
        uint16_t seq;
        int64_t sinceUs;
        int asks = 0;
        int calmAsks = 0;
        bool isAnswered = false;
        EngineModel::Verdict verdict = EngineModel::Verdict::HeldOff;
    };

    void DrawWindow();
    void At(int64_t inUs, Timer timer);
    void Ping();
    void SendPing();
    void LookAtItself();
    void Ask();
    void AskForAnything();
    void MakeNoise();
    void NoticeGap(uint16_t seq);
    void GiveUp(const Missing& missing) const;
    void SendRequest(const std::vector<uint16_t>& seqs, bool isRight);
    void SendTagged(uint16_t port, const std::vector<uint8_t>& bytes);
    uint16_t Port() const { return m_identity.Port(m_nMoves); }

    Machine& m_machine;
    const Config& m_config;
    const ReceiverIdentity m_identity;
    Network& m_network;
    Random m_random;
    int64_t m_nPingUs; // between two pings
    int64_t m_nAskUs; // between two requests for the same numbers
    uint16_t m_usRetries = 0; // its window, as told in each request
    uint16_t m_usIntervalMs = 0;
    uint16_t m_usExtraMs = 0;
    int m_nMoves = 0;
    bool m_bCalm = false;
    bool m_bSilent = false;
    int64_t m_nSilentUntilUs = 0;
    bool m_bHasNewest = false;
    uint16_t m_usNewest = 0;
    bool m_bAsking = false; // a request is due
    std::vector<Missing> m_missing;
    uint64_t m_nRecovered = 0;
};

} // namespace simulation
