#include "arqctl/proxy/ask.h"

#include <poll.h>

#include <algorithm>

#include "common/clock.h"

namespace arqctl {

namespace {

// Waits for what the exchange waits for.
void WaitFor(const Exchange& exchange)
{
    const int64_t leftUs = std::max<int64_t>(exchange.WakeUs() - common::NowUs(), 0);
    pollfd waiting { exchange.Fd(), exchange.Events(), 0 };
    (void)poll(&waiting, 1, static_cast<int>((leftUs + common::US_PER_MS - 1) / common::US_PER_MS));
}

} // namespace

Answer Ask(const std::string& path, const std::string& request, int64_t patienceUs)
{
    Exchange exchange(path, request, common::NowUs(), patienceUs);
    for (exchange.Proceed(common::NowUs()); !exchange.IsOver(); exchange.Proceed(common::NowUs()))
        WaitFor(exchange);
    return { exchange.Reason(), exchange.Reply(), exchange.PeerPid() };
}

std::string ProblemText(Failure failure, const std::string& path)
{
    switch (failure) {
    case Failure::None:
        return "";
    case Failure::NoSocket:
        return "there is no control socket " + path;
    case Failure::NotListening:
        return "nobody listens on " + path + ": its proxy has ended";
    case Failure::NotAllowed:
        return "no right to use " + path;
    case Failure::NoAnswer:
        return "no answer in time on " + path;
    case Failure::CutOff:
        return "the connection to " + path + " broke in the middle of the answer";
    case Failure::TooLong:
        return "what answers on " + path + " is no tx_proxy: its answer does not end";
    case Failure::Foreign:
        return "what answers on " + path + " is no tx_proxy, or its answer broke off";
    case Failure::NoDescriptor:
        return "no socket could be made for " + path;
    case Failure::NoSsh:
        return "there is no program ssh";
    case Failure::NoWay:
        return "ssh does not reach " + path;
    case Failure::NotForwarded:
        return "ssh gets no connection to " + path;
    }
    return "";
}

std::string AdviceText(Failure failure, const std::string& path)
{
    switch (failure) {
    case Failure::None:
        return "";
    case Failure::NoSocket:
    case Failure::NotListening:
        return "start the proxy, or see with 'arqctl instances' which ones run";
    case Failure::NotAllowed:
        return "run this as the proxy's user (root, as a rule), or let your group use " + path;
    case Failure::NoAnswer:
        return "another client may hold it, or it looks up a name: try again, or with a longer --timeout";
    case Failure::CutOff:
        return "the proxy ended just now, or it is another program: see 'arqctl instances'";
    case Failure::TooLong:
    case Failure::Foreign:
        return "see with 'arqctl instances' which program it is";
    case Failure::NoDescriptor:
        return "raise the limit of open files (ulimit -n)";
    case Failure::NoSsh:
        return "install openssh-client, or name another with ARQCTL_SSH";
    case Failure::NoWay:
        return "'ssh -o BatchMode=yes HOST true' must work by hand";
    case Failure::NotForwarded:
        return "start the proxy there; if it runs: its user must have the right to the socket, and its sshd must allow "
               "forwarding (AllowStreamLocalForwarding)";
    }
    return "";
}

} // namespace arqctl
