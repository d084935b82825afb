#include "arqctl/proxy/tunnel.h"

#include <poll.h>

#include <algorithm>

#include "arqctl/proxy/host_tunnel.h"
#include "arqctl/proxy/ssh.h"
#include "common/clock.h"

namespace arqctl {

namespace {

constexpr int TUNNEL_TURN_MS = 10;

// What a shell over there finds out about a socket, as exit statuses.
constexpr int THERE_IS_NONE = 41;
constexpr int NO_RIGHT_TO_IT = 42;
constexpr int SOMEBODY_LISTENS = 43;
constexpr int NOBODY_LISTENS = 44;
constexpr auto LOOK_AT_SOCKET = R"([ -e "$1" ] || exit 41
[ -w "$1" ] || exit 42
while read -r slot count protocol flags type state inode path; do
    [ "$flags" = 00010000 ] && [ "$path" = "$1" ] && exit 43
done < /proc/net/unix
exit 44)";

// Where a proxy answered nothing, or a connection was closed at once.
bool MayBeRefused(const Answer& answer)
{
    return (answer.IsThere() && answer.reply.empty()) || answer.failure == Failure::CutOff;
}

bool IsOfSocketFile(Failure failure)
{
    return failure == Failure::NoSocket || failure == Failure::NotListening || failure == Failure::NotAllowed;
}

std::string PlaceText(const Target& target)
{
    return (target.IsRemote() ? target.via + ":" : "") + target.ControlPath();
}

} // namespace

Tunnels::Tunnels() = default;
Tunnels::~Tunnels() = default;

HostTunnel* Tunnels::Find(const Target& target) const
{
    const auto found = std::find_if(
        m_hosts.begin(), m_hosts.end(), [&target](const auto& host) { return host->Host() == target.via; });
    return found == m_hosts.end() ? nullptr : found->get();
}

std::string Tunnels::PathOf(const Target& target)
{
    if (!target.IsRemote())
        return target.ControlPath();
    if (!Find(target))
        m_hosts.push_back(std::make_unique<HostTunnel>(target.via));
    return Find(target)->LocalPath(target.ControlPath());
}

void Tunnels::Proceed(int64_t nowUs)
{
    for (const auto& host : m_hosts) {
        host->Look();
        if (!host->IsRunning() && nowUs >= host->retryUs) {
            host->retryUs = nowUs + RETRY_AFTER_US;
            host->Start();
        }
    }
}

Failure Tunnels::Open(const Target& target, int64_t patienceUs)
{
    if (!target.IsRemote())
        return Failure::None;
    (void)PathOf(target);
    HostTunnel& host = *Find(target);
    const int64_t deadlineUs = common::NowUs() + patienceUs + SSH_CONNECT_SECONDS * common::US_PER_SECOND;
    host.Look();
    host.Start();
    for (host.Look(); host.IsRunning() && !host.IsUp(); host.Look()) {
        if (common::NowUs() >= deadlineUs)
            host.GiveUp();
        (void)poll(nullptr, 0, TUNNEL_TURN_MS);
    }
    return host.IsUp() ? Failure::None : host.LastFailure();
}

void Tunnels::Judge(const Target& target, Answer& answer)
{
    HostTunnel* const host = Find(target);
    if (!host)
        return;
    host->Look();
    answer.peerPid = 0; // the tunnel's
    if (MayBeRefused(answer) && host->TakeRefusal())
        answer.failure = Failure::NotForwarded;
    else if (!host->IsUp() && (MayBeRefused(answer) || IsOfSocketFile(answer.failure)))
        answer.failure = host->LastFailure() == Failure::None ? Failure::NoWay : host->LastFailure();
}

void Tunnels::Diagnose(const Target& target, Answer& answer, int64_t patienceUs)
{
    Judge(target, answer);
    HostTunnel* const host = Find(target);
    if (!host || answer.failure != Failure::NotForwarded)
        return;
    const RemoteRun run
        = RunRemote(target.via, { "sh", "-c", LOOK_AT_SOCKET, "sh", target.ControlPath() }, "", patienceUs);
    switch (run.status) {
    case THERE_IS_NONE:
        answer.failure = Failure::NoSocket;
        break;
    case NO_RIGHT_TO_IT:
        answer.failure = Failure::NotAllowed;
        break;
    case NOBODY_LISTENS:
        answer.failure = Failure::NotListening;
        break;
    case SOMEBODY_LISTENS:
        host->Refuse();
        answer.failure = Failure::NoWay;
        break;
    default:
        break;
    }
}

Trouble Tunnels::Explain(const Target& target, Failure failure) const
{
    const HostTunnel* const host = Find(target);
    if (host && (failure == Failure::NoWay || failure == Failure::NoSsh)
        && host->LastFailure() != Failure::None)
        return host->LastTrouble();
    const std::string place = PlaceText(target);
    if (target.IsRemote() && (failure == Failure::NoSocket || failure == Failure::NotListening))
        return { ProblemText(failure, place),
            "start the proxy there, or see with 'arqctl --via ssh:" + target.via
                + " instances' which ones run" };
    return { ProblemText(failure, place), AdviceText(failure, place) };
}

} // namespace arqctl
