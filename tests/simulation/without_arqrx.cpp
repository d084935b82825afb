// Stands in for arqrx_receiver.cpp in a build without the tools.
#include <cstdio>

#include "simulation/failure.h"
#include "simulation/recovery.h"
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

int RunRecovery(int /*count*/, char** /*words*/)
{
    fprintf(stderr, "simulation: built without the tools, whose receiver --recovery is about\n");
    return static_cast<int>(Outcome::Usage);
}

} // namespace simulation
