#pragma once

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "simulation/checker.h"
#include "simulation/config.h"
#include "simulation/machine.h"
#include "simulation/network.h"
#include "simulation/operator_run.h"
#include "simulation/proxy_run.h"
#include "simulation/simulated_receiver.h"
#include "simulation/wraps.h"

namespace simulation {

// What a run was like.
struct RunResult {
    uint64_t hash = 0;
    uint64_t events = 0;
    uint64_t inputs = 0;
    uint64_t datagrams = 0; // over all links
    uint64_t recovered = 0; // packets that receivers missed and then got
    PlayedTotals played; // by those that play out
    int64_t virtualUs = 0;
    WrapCounts wraps;
    SendCounts sends;
    uint64_t routes = 0; // changes of the route
};

// One seed: the proxy, its receivers, the links between them, the clock and the operator. First there are faults,
// then calm in which all that is pending ends, then silence in which the streams end, then the proxy does.
class World : private Postman, private Mailbox, private Action {
public:
    explicit World(const Config& config);

    // Every event is printed too.
    void Echo(FILE* stream) { m_machine.trace.EchoTo(stream); }
    // Does not come back from a run that fails.
    RunResult Run();

private:
    enum Moment : uint64_t { SECOND_OVER, CLOCK_STEP, CALM_BEGINS, CALM_OVER, SILENCE_BEGINS, SILENCE_OVER };

    void SendDown(const Delivery& delivery) override { m_network.SendDown(delivery); }
    void TellVerdict(int receiver, uint16_t seq, EngineModel::Verdict verdict) override
    {
        m_models[static_cast<size_t>(receiver)]->TellVerdict(seq, verdict);
    }
    void TellSource(int receiver, uint16_t seq, const std::vector<uint8_t>& bytes) override
    {
        m_models[static_cast<size_t>(receiver)]->TellSource(seq, bytes);
    }
    void OnArrival(const Delivery& delivery) override
    {
        m_models[static_cast<size_t>(delivery.receiver)]->OnArrival(delivery);
    }
    void OnEvent(uint64_t argument) override;

    std::unique_ptr<SimulatedReceiver> MakeReceiver(const ReceiverIdentity& receiver);
    void PlanMoments();
    void EverySecond();
    void StepClock();
    void ChangeRoute();
    void BeginCalm();
    void CheckSilenceOver();
    void CheckEnd();
    RunResult Result() const;

    const Config m_config;
    const std::vector<ReceiverIdentity> m_receivers;
    WrapCounts m_wraps;
    Machine m_machine;
    Checker m_checker;
    Network m_network;
    ProxyRun m_proxy;
    OperatorRun m_operator;
    std::vector<std::unique_ptr<SimulatedReceiver>> m_models;
    Random m_clockRandom;
    Random m_routeRandom;
    bool m_bFaults = true;
    uint64_t m_nRoutes = 0;
    bool m_bOver = false; // the proxy may end
};

} // namespace simulation
