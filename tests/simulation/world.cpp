#include "simulation/world.h"

#include <cerrno>
#include <cinttypes>

#include "replicator/arq_send_replicator.h"
#include "simulation/failure.h"
#include "simulation/model_receiver.h"
#include "simulation/time_units.h"

namespace simulation {

namespace {

constexpr int64_t LAST_GASP_US = 5 * SECOND; // for the end of the proxy, with lateness

} // namespace

World::World(const Config& config)
    : m_config(config),
      m_receivers(MakeReceivers(config)),
      m_machine(config.seed, config.steadyStartUs, config.wallStartUs, config.machine),
      m_checker(m_machine, m_config, m_receivers, *this, m_wraps),
      m_network(m_machine, m_config, m_receivers, *this),
      m_proxy(m_machine, m_config, m_checker, m_receivers),
      m_operator(m_machine, m_config, m_checker, m_proxy, m_receivers),
      m_clockRandom(config.seed, Purpose::Clock),
      m_routeRandom(config.seed, Purpose::Route)
{
    m_machine.SetOutside(&m_checker);
    m_machine.mtuBytes = static_cast<size_t>(config.mtuBytes);
    m_machine.tooLongError = config.isOldKernel ? EINVAL : EMSGSIZE;
    for (const ReceiverIdentity& receiver : m_receivers)
        m_models.push_back(MakeReceiver(receiver));
}

std::unique_ptr<SimulatedReceiver> World::MakeReceiver(const ReceiverIdentity& receiver)
{
    if (receiver.readsBytes)
        return MakeArqrxReceiver(m_machine, m_config, receiver, m_network);
    return std::make_unique<ModelReceiver>(m_machine, m_config, receiver, m_network);
}

RunResult World::Run()
{
    m_proxy.Start();
    m_operator.Start();
    for (const std::unique_ptr<SimulatedReceiver>& model : m_models)
        model->Start();
    PlanMoments();
    const int64_t latestUs = m_config.EndUs() + LAST_GASP_US;
    while (!m_proxy.IsDone()) {
        if (!m_machine.Step() || m_machine.clock.NowUs() > latestUs)
            Fail(Outcome::LostLiveness, "the proxy does not end");
    }
    CheckEnd();
    return Result();
}

void World::PlanMoments()
{
    m_machine.queue.Put(SECOND, *this, SECOND_OVER);
    m_machine.queue.Put(m_config.faultsUs, *this, CALM_BEGINS);
    m_machine.queue.Put(m_config.CalmEndUs(), *this, CALM_OVER);
    m_machine.queue.Put(m_config.CalmEndUs(), *this, SILENCE_BEGINS);
    m_machine.queue.Put(m_config.EndUs(), *this, SILENCE_OVER);
    for (int32_t i = 0; i < m_config.clockSteps; ++i)
        m_machine.queue.Put(m_clockRandom.Between(SECOND, m_config.faultsUs), *this, CLOCK_STEP);
}

void World::OnEvent(uint64_t argument)
{
    switch (static_cast<Moment>(argument)) {
    case SECOND_OVER:
        EverySecond();
        break;
    case CLOCK_STEP:
        StepClock();
        break;
    case CALM_BEGINS:
        BeginCalm();
        break;
    case CALM_OVER:
        for (const std::unique_ptr<SimulatedReceiver>& model : m_models)
            model->CheckNothingMissing();
        m_proxy.CheckPacer();
        break;
    case SILENCE_BEGINS:
        for (const std::unique_ptr<SimulatedReceiver>& model : m_models)
            model->FallSilent();
        break;
    case SILENCE_OVER:
        CheckSilenceOver();
        break;
    }
}

void World::EverySecond()
{
    m_checker.WatchClocks();
    m_network.CheckBalance();
    REQUIRE_THAT(m_network.Sent() <= m_config.datagramBudget,
        "more than the %" PRIu64 " datagrams that a seed may take", m_config.datagramBudget);
    if (m_bOver || m_proxy.Replicator() == nullptr)
        return;
    m_checker.CheckCounters();
    if (m_bFaults && m_routeRandom.Chance(m_config.routePermille))
        ChangeRoute();
    m_machine.queue.Put(m_machine.clock.NowUs() + SECOND, *this, SECOND_OVER);
}

void World::StepClock()
{
    const int64_t byUs = m_clockRandom.Between(-m_config.largestStepUs, m_config.largestStepUs);
    const int64_t wholeUs = m_clockRandom.Chance(500) ? byUs : (byUs < 0 ? -1 : 1) * m_config.largestStepUs;
    m_machine.clock.StepWall(wholeUs);
    m_machine.Note(Happened::ClockStep, static_cast<uint64_t>(m_machine.clock.WallUs()));
    for (const std::unique_ptr<SimulatedReceiver>& model : m_models)
        model->OnClockStep(wholeUs);
}

// What is sent from now on has another source address, which a connected socket does not have; or there is no way.
void World::ChangeRoute()
{
    kernel_model::Sockets& sockets = m_machine.sockets;
    const auto other = static_cast<in_addr_t>(m_routeRandom.Between(0, 3));
    const bool isLost = m_bFaults && m_routeRandom.Chance(300);
    sockets.routedSourceNet = isLost ? 0 : htonl(kernel_model::Sockets::FIRST_ADDRESS + other);
    ++m_nRoutes;
    m_machine.Note(Happened::RouteChanges, m_machine.sockets.routedSourceNet);
}

void World::BeginCalm()
{
    m_bFaults = false;
    if (m_machine.sockets.routedSourceNet == 0)
        ChangeRoute();
    m_machine.Note(Happened::Calm);
    m_machine.EndFaults();
    m_checker.EndFaults();
    m_network.EndFaults();
    m_proxy.EndFaults();
    m_operator.EndFaults();
    for (const std::unique_ptr<SimulatedReceiver>& model : m_models)
        model->BeginCalm();
}

// Who pinged is gone, who was configured is not, and nothing waits to be destroyed.
void World::CheckSilenceOver()
{
    m_bOver = true;
    m_checker.CheckCounters();
    for (const std::unique_ptr<SimulatedReceiver>& model : m_models)
        model->CheckSilent();
    for (const ReceiverIdentity& receiver : m_receivers) {
        const StreamModel& stream = m_checker.Book().Of(receiver.index);
        if (stream.inTable && !stream.isStatic)
            Fail(Outcome::LostLiveness, "receiver %d pings no more and still has a stream", receiver.index);
    }
    const int32_t waiting = m_proxy.Replicator()->Streams().Waiting();
    if (waiting != 0)
        Fail(Outcome::LostLiveness, "%d removed streams are not destroyed", waiting);
}

void World::CheckEnd()
{
    REQUIRE_THAT(m_machine.sockets.Open() == 0, "%d descriptors are still open", m_machine.sockets.Open());
    REQUIRE_THAT(m_machine.fibers.Running() == 0, "%d threads still run", m_machine.fibers.Running());
}

RunResult World::Result() const
{
    RunResult result;
    result.hash = m_machine.trace.Hash();
    result.events = m_machine.trace.Count();
    result.inputs = m_checker.Inputs();
    result.datagrams = m_network.Sent();
    for (const std::unique_ptr<SimulatedReceiver>& model : m_models) {
        result.recovered += model->Recovered();
        result.played.Add(model->Played());
    }
    result.virtualUs = m_machine.clock.NowUs();
    result.wraps = m_wraps;
    result.sends = m_checker.Sends();
    result.routes = m_nRoutes;
    return result;
}

} // namespace simulation
