#include "common/stop_signal.h"

#include <csignal>
#include <sys/signalfd.h>

namespace common {

UniqueFd OpenStopSignal()
{
    sigset_t signals;
    (void)sigemptyset(&signals);
    (void)sigaddset(&signals, SIGINT);
    (void)sigaddset(&signals, SIGTERM);
    (void)pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return UniqueFd(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

bool OutlivesTerminal()
{
    struct sigaction inherited {};
    return sigaction(SIGHUP, nullptr, &inherited) == 0 && inherited.sa_handler == SIG_IGN;
}

} // namespace common
