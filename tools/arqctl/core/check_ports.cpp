#include <algorithm>

#include "arqctl/core/checks.h"
#include "common/endpoint.h"

namespace arqctl {

namespace {

// A port of the proxy, and where it is bound.
struct WantedPort {
    const char* use; // "the listen port"
    const char* option; // that chooses another
    uint16_t port = 0;
    uint32_t address = 0;
    bool isShared = false; // by others too: a group's datagrams go to all who joined it
};

std::string NameOf(const HeldSocket& held)
{
    if (held.pid == 0)
        return "user " + std::to_string(held.socket.user) + "'s socket " + std::to_string(held.socket.inode);
    return held.name + " (process " + std::to_string(held.pid) + ")";
}

// Whether a datagram for one could go to the other.
bool Meets(const UdpSocketFacts& socket, const WantedPort& wanted)
{
    return socket.port == wanted.port
        && (socket.address == wanted.address || socket.address == 0 || wanted.address == 0);
}

bool IsOwn(const DoctorFacts& facts, const HeldSocket& held)
{
    return facts.pid != 0 && held.pid == facts.pid;
}

const HeldSocket* Other(const DoctorFacts& facts, const WantedPort& wanted)
{
    const auto found = std::ranges::find_if(facts.sockets, [&](const HeldSocket& held) {
        return !IsOwn(facts, held) && Meets(held.socket, wanted)
            && !(wanted.isShared && held.socket.address == wanted.address);
    });
    return found == facts.sockets.end() ? nullptr : &*found;
}

bool HoldsIt(const DoctorFacts& facts, const WantedPort& wanted)
{
    return std::ranges::any_of(facts.sockets, [&](const HeldSocket& held) {
        return IsOwn(facts, held) && !held.isIpv6 && Meets(held.socket, wanted);
    });
}

// Another user's process: whose sockets are whose is not seen.
bool AreOwnersSeen(const DoctorFacts& facts)
{
    return !facts.isRunning
        || std::ranges::any_of(facts.sockets, [&](const HeldSocket& held) { return IsOwn(facts, held); });
}

std::string EndCommand(const HeldSocket& held)
{
    return held.pid == 0 ? "ss -ulpn" : "kill " + std::to_string(held.pid);
}

Finding JudgeTaken(const DoctorFacts& facts, const WantedPort& wanted, const HeldSocket& other)
{
    const std::string port = "UDP port " + std::to_string(wanted.port);
    const std::string holder = NameOf(other) + (other.isIpv6 ? " on IPv6" : "");
    const std::string advice = std::string("End it, or choose another with ") + wanted.option
        + (facts.isRunning ? ", and start the proxy again" : "");
    if (facts.isRunning && HoldsIt(facts, wanted))
        return Fault(port + " is held by " + holder + " too, which may get what is meant for the proxy",
            advice, EndCommand(other));
    if (other.isIpv6 && !facts.isRunning)
        return Warning(port + ", " + wanted.use + ", is held by " + holder + ", maybe for IPv4 too", advice,
            EndCommand(other));
    return Fault(port + ", " + wanted.use + ", is held by " + holder, advice, EndCommand(other));
}

// Which of the proxy's own other ports it is; null for none.
const char* SameAs(const ProxyOptions& options, const WantedPort& wanted)
{
    const struct {
        const char* use;
        uint16_t port;
    } ports[] = { { "the listen port", options.listenPort }, { "the ping port", PingPort(options) },
        { "the request port", options.requestPort }, { "the lock port", LockPort(options.instance) } };
    const std::string_view own = wanted.use;
    // With destinations, pings are left out and requests come in by the media's sockets.
    const bool areEqualOnPurpose = !options.destinations.empty();
    for (const auto& other : ports) {
        const std::string_view use = other.use;
        const bool isPair = own != use && own != ports[0].use && use != ports[0].use && own != ports[3].use
            && use != ports[3].use;
        if (own != use && other.port == wanted.port && !(isPair && areEqualOnPurpose))
            return other.use;
    }
    return nullptr;
}

std::string Spot(const WantedPort& wanted)
{
    const std::string port = std::to_string(wanted.port);
    return wanted.address == 0 ? "UDP port " + port : common::EndpointText({ wanted.address, wanted.port });
}

Finding JudgePort(const DoctorFacts& facts, const WantedPort& wanted)
{
    if (wanted.port == 0)
        return Fault(std::string(wanted.use) + " is 0: the system chooses one that nobody knows",
            std::string("Give ") + wanted.option + " a number from 1 to 65535");
    if (const char* same = SameAs(facts.options, wanted))
        return Fault(std::string(wanted.use) + " " + std::to_string(wanted.port) + " is " + same + " too",
            std::string("Choose another with ") + wanted.option);
    if (!facts.isNetworkSeen)
        return NotApplicable("the proxy's network is not to be seen from here");
    const HeldSocket* other = AreOwnersSeen(facts) ? Other(facts, wanted) : nullptr;
    if (other != nullptr && !(other->isIpv6 && HoldsIt(facts, wanted)))
        return JudgeTaken(facts, wanted, *other);
    if (wanted.port < facts.firstUnprivilegedPort && !facts.user.mayBindLowPorts && !HoldsIt(facts, wanted))
        return Fault("user " + std::to_string(facts.user.user) + " may not bind " + Spot(wanted),
            "Give the proxy CAP_NET_BIND_SERVICE, or choose another port with " + std::string(wanted.option));
    if (!facts.isRunning)
        return Good(Spot(wanted) + " is free");
    if (!AreOwnersSeen(facts))
        return NotApplicable("whose sockets are whose is not to be seen without root");
    if (!HoldsIt(facts, wanted))
        return Fault("the proxy does not hold " + Spot(wanted) + ", " + wanted.use,
            "Somebody had it when the proxy started: start the proxy again");
    return Good(Spot(wanted) + " is the proxy's");
}

uint32_t InputAddress(const ProxyOptions& options)
{
    uint32_t address = 0;
    if (!options.group.empty())
        (void)common::ParseAddress(options.group, address);
    return address;
}

bool Contains(const PortRange& range, uint16_t port)
{
    return range.first <= port && port <= range.last;
}

// "32124,32200-32210" and more of them, as the kernel takes it.
std::string ReservedWith(const std::string& reserved, const std::vector<uint16_t>& ports)
{
    std::string text = reserved;
    for (const uint16_t port : ports)
        text += (text.empty() ? "" : ",") + std::to_string(port);
    return text;
}

std::vector<uint16_t> OwnPorts(const ProxyOptions& options)
{
    std::vector<uint16_t> ports { LockPort(options.instance), options.listenPort, PingPort(options),
        options.requestPort };
    std::ranges::sort(ports);
    ports.erase(std::unique(ports.begin(), ports.end()), ports.end());
    return ports;
}

} // namespace

Finding CheckLockPort(const DoctorFacts& facts)
{
    return JudgePort(facts, { "the lock port", "-I", LockPort(facts.options.instance) });
}

Finding CheckListenPort(const DoctorFacts& facts)
{
    return JudgePort(facts,
        { "the listen port", "its first argument", facts.options.listenPort, InputAddress(facts.options),
            !facts.options.group.empty() });
}

Finding CheckPingPort(const DoctorFacts& facts)
{
    const bool isBeside = PingPort(facts.options) != facts.options.mediaPort;
    if (facts.options.mediaPort == facts.options.requestPort && !facts.options.destinations.empty()
        && !isBeside)
        return NotApplicable("-p and -r are equal: nobody listens for pings");
    return JudgePort(facts, { "the ping port", isBeside ? "-b" : "-p", PingPort(facts.options) });
}

Finding CheckRequestPort(const DoctorFacts& facts)
{
    return JudgePort(facts, { "the request port", "-r", facts.options.requestPort });
}

Finding CheckEphemeralPorts(const DoctorFacts& facts)
{
    if (!facts.ephemeralPorts)
        return NotApplicable("the range of ephemeral ports is not to be seen from here");
    const PortRange& range = *facts.ephemeralPorts;
    const std::string span = std::to_string(range.first) + " to " + std::to_string(range.last);
    std::vector<uint16_t> ports = OwnPorts(facts.options);
    std::erase_if(ports, [&](uint16_t port) {
        return !Contains(range, port)
            || std::ranges::any_of(
                facts.reservedPorts, [&](const PortRange& reserved) { return Contains(reserved, port); });
    });
    if (ports.empty())
        return Good("none of its ports lies among the ephemeral ones, " + span);
    const std::string names = ReservedWith("", ports);
    const bool isLock = std::ranges::find(ports, LockPort(facts.options.instance)) != ports.end();
    return Warning("port " + names
            + (isLock ? ", the instance's lock port " + WithoutCommas(LockPort(facts.options.instance))
                        + " among them,"
                      : "")
            + " may be given to any program before the proxy starts: ephemeral ports are " + span,
        "Reserve them, or choose others",
        "sysctl -w net.ipv4.ip_local_reserved_ports=" + ReservedWith(facts.reservedPortsText, ports));
}

} // namespace arqctl
