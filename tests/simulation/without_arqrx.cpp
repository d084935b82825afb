// Stands in for arqrx_receiver.cpp in a build without the tools.
#include "simulation/simulated_receiver.h"

namespace simulation {

bool HasArqrx()
{
    return false;
}

std::unique_ptr<SimulatedReceiver> MakeArqrxReceiver(Machine& /*machine*/, const Config& /*config*/,
    const ReceiverIdentity& /*identity*/, Network& /*network*/)
{
    return nullptr;
}

} // namespace simulation
