#include "demo/signals.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <initializer_list>

#include "common/stop_signal.h"

namespace demo {

Signals::Signals()
{
    sigset_t set = common::StopSignals();
    sigaddset(&set, SIGQUIT);
    (void)pthread_sigmask(SIG_BLOCK, &set, nullptr);
    m_fd.Reset(signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC));
    for (const int number : { SIGPIPE, SIGTSTP }) // a stopped demo would be a dead line
        (void)signal(number, SIG_IGN);
}

int Signals::First()
{
    signalfd_siginfo info {};
    if (m_nFirst == 0 && read(m_fd.Get(), &info, sizeof(info)) == sizeof(info))
        m_nFirst = static_cast<int>(info.ssi_signo);
    return m_nFirst;
}

const char* SignalName(int number)
{
    switch (number) {
    case SIGINT:
        return "SIGINT";
    case SIGHUP:
        return "SIGHUP";
    case SIGQUIT:
        return "SIGQUIT";
    default:
        return "SIGTERM";
    }
}

} // namespace demo
