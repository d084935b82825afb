#include "common/stop_signal.h"

#include <csignal>
#include <sys/signalfd.h>

namespace common {

namespace {

bool OutlivesTerminal()
{
    struct sigaction inherited {};
    return sigaction(SIGHUP, nullptr, &inherited) == 0 && inherited.sa_handler == SIG_IGN;
}

} // namespace

sigset_t StopSignals()
{
    sigset_t signals;
    (void)sigemptyset(&signals);
    (void)sigaddset(&signals, SIGINT);
    (void)sigaddset(&signals, SIGTERM);
    if (!OutlivesTerminal()) // held, it would come in spite of being ignored
        (void)sigaddset(&signals, SIGHUP);
    return signals;
}

UniqueFd OpenStopSignal()
{
    const sigset_t signals = StopSignals();
    (void)pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return UniqueFd(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

} // namespace common
