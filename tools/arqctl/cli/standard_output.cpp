#include "arqctl/cli/standard_output.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <string>
#include <system_error>

namespace arqctl {

namespace {

// Whether something may be written; false when the program is to end first.
bool WaitForReader(int stop)
{
    pollfd waiting[] { { STDOUT_FILENO, POLLOUT, 0 }, { stop, POLLIN, 0 } };
    while (poll(waiting, 2, -1) < 0 && errno == EINTR) {}
    return waiting[0].revents != 0;
}

// A pipe takes this much or nothing once it says that it has room.
constexpr size_t AT_ONCE = 4096;

} // namespace

Written WriteOut(std::string_view text, int stop)
{
    (void)signal(SIGPIPE, SIG_IGN);
    while (!text.empty()) {
        if (!WaitForReader(stop))
            return Written::Stopped;
        const ssize_t count = write(STDOUT_FILENO, text.data(), std::min(text.size(), AT_ONCE));
        if (count < 0 && errno == EPIPE)
            return Written::NobodyReads;
        if (count < 0 && errno != EINTR && errno != EAGAIN)
            return Written::No;
        text.remove_prefix(count > 0 ? static_cast<size_t>(count) : 0);
    }
    return Written::Yes;
}

ExitStatus EndOfOutput(const Session& session, Written written)
{
    if (written != Written::No)
        return ExitStatus::Good;
    return Fail(session, ExitStatus::NoStart,
        "standard output takes nothing more: " + std::generic_category().message(errno),
        "make room where it is written to, or write elsewhere");
}

} // namespace arqctl
