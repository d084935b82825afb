#pragma once

#include <string>
#include <vector>

#include "simulation/checker.h"
#include "simulation/config.h"
#include "simulation/machine.h"
#include "simulation/proxy_run.h"
#include "simulation/random.h"

namespace simulation {

// The control thread with an operator behind it: commands at random, whose replies are known beforehand, and the
// impairment switched on and off.
class OperatorRun {
public:
    OperatorRun(Machine& machine, const Config& config, Checker& checker, ProxyRun& proxy,
        const std::vector<ReceiverIdentity>& receivers);

    void Start();
    // No more commands; the one that runs is ended.
    void EndFaults() { m_bFaults = false; }

private:
    static void Control(void* run);
    void GiveCommand();
    void Switch();
    void CarryOut(const std::string& command);
    void AddOrDelete(bool isDelete);
    std::string AddressOf(const ReceiverIdentity& receiver) const;

    Machine& m_machine;
    const Config& m_config;
    Checker& m_checker;
    ProxyRun& m_proxy;
    const std::vector<ReceiverIdentity>& m_receivers;
    Random m_random;
    bool m_bFaults = true;
};

} // namespace simulation
