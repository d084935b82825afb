#include "arqctl/proxy/network_facts.h"

#include <ifaddrs.h>
#include <net/if.h>

#include <algorithm>
#include <memory>

#include "arqctl/core/network_text.h"
#include "arqctl/proxy/other_network.h"
#include "arqctl/proxy/process.h"
#include "arqctl/proxy/route_lookup.h"
#include "arqctl/proxy/socket_holders.h"
#include "common/endpoint.h"

namespace arqctl {

namespace {

struct FreeAddresses {
    void operator()(ifaddrs* list) const { freeifaddrs(list); }
};

std::string TextOf(const std::string& path)
{
    return ReadText(path).value_or("");
}

// "/proc/PID/net/NAME" of the proxy, or of this program for one that is to be started.
std::string NetworkText(int pid, const char* name)
{
    return TextOf("/proc/" + (pid == 0 ? std::string("self") : std::to_string(pid)) + "/net/" + name);
}

// The stricter of what all interfaces and this one have; -1 where it is not to be seen.
int SourceFilterOf(const std::string& name)
{
    const std::string folder = "/proc/sys/net/ipv4/conf/";
    const auto all = ReadCount(TextOf(folder + "all/rp_filter"));
    const auto own = ReadCount(TextOf(folder + name + "/rp_filter"));
    return all && own ? static_cast<int>(std::max(*all, *own)) : -1;
}

InterfaceFacts FactsOfInterface(const std::string& name, unsigned flags)
{
    InterfaceFacts facts;
    facts.name = name;
    facts.isUp = (flags & IFF_UP) != 0;
    facts.isRunning = (flags & IFF_RUNNING) != 0;
    facts.isMulticast = (flags & IFF_MULTICAST) != 0;
    facts.isLoopback = (flags & IFF_LOOPBACK) != 0;
    facts.sourceFilter = SourceFilterOf(name);
    return facts;
}

// An interface stands in the list once for each of its addresses.
std::vector<InterfaceFacts> Interfaces()
{
    std::vector<InterfaceFacts> interfaces;
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0)
        return interfaces;
    const std::unique_ptr<ifaddrs, FreeAddresses> owner(list);
    for (const ifaddrs* one = list; one != nullptr; one = one->ifa_next) {
        const std::string name = one->ifa_name;
        if (std::ranges::find(interfaces, name, &InterfaceFacts::name) == interfaces.end())
            interfaces.push_back(FactsOfInterface(name, one->ifa_flags));
    }
    return interfaces;
}

void AddMemberships(int pid, std::vector<InterfaceFacts>& interfaces)
{
    for (const Membership& membership : ReadMemberships(NetworkText(pid, "igmp"))) {
        const auto found = std::ranges::find(interfaces, membership.interface, &InterfaceFacts::name);
        if (found != interfaces.end())
            found->groups.push_back(membership.group);
    }
}

std::optional<std::string> RouteTo(const std::string& text)
{
    uint32_t address = 0;
    return common::ParseAddress(text, address) ? RouteInterface(address) : std::nullopt;
}

void GatherRoutes(DoctorFacts& facts)
{
    facts.defaultInterface = ReadDefaultInterface(NetworkText(facts.pid, "route"));
    facts.inputGroupInterface = RouteTo(facts.options.group);
    facts.outputGroupInterface = RouteTo(OutputGroup(facts.options));
    facts.sourceInterface = RouteTo(facts.source);
}

void GatherLimits(DoctorFacts& facts)
{
    const std::string folder = "/proc/sys/net/";
    facts.receiveBufferLimit = ReadCount(TextOf(folder + "core/rmem_max"));
    facts.ephemeralPorts = ReadPortRange(TextOf(folder + "ipv4/ip_local_port_range"));
    const std::string reserved = TextOf(folder + "ipv4/ip_local_reserved_ports");
    facts.reservedPorts = ReadReservedPorts(reserved);
    facts.reservedPortsText = reserved.substr(0, reserved.find('\n'));
    const auto first = ReadCount(TextOf(folder + "ipv4/ip_unprivileged_port_start"));
    facts.firstUnprivilegedPort = static_cast<uint32_t>(first.value_or(facts.firstUnprivilegedPort));
    facts.connections = ReadCount(TextOf(folder + "netfilter/nf_conntrack_count"));
    facts.connectionsLimit = ReadCount(TextOf(folder + "netfilter/nf_conntrack_max"));
}

void AddTable(const DoctorFacts& facts, const char* table, bool isIpv6, std::vector<HeldSocket>& sockets)
{
    const ProxyOptions& options = facts.options;
    for (const UdpSocketFacts& socket : ReadUdpSockets([&] { return NetworkText(facts.pid, table); })) {
        const uint16_t port = socket.port;
        if (port == options.listenPort || port == options.requestPort || port == PingPort(options)
            || port == LockPort(options.instance))
            sockets.push_back({ socket, isIpv6, 0, {} });
    }
}

// `own`: sockets that are known to be the proxy's.
void GatherSockets(DoctorFacts& facts, const std::vector<UdpSocketFacts>& own)
{
    AddTable(facts, "udp", false, facts.sockets);
    AddTable(facts, "udp6", true, facts.sockets);
    std::set<uint64_t> others;
    for (HeldSocket& held : facts.sockets) {
        const uint64_t inode = held.socket.inode;
        if (std::ranges::find(own, inode, &UdpSocketFacts::inode) != own.end())
            held.pid = facts.pid;
        else
            others.insert(inode);
    }
    const auto holders = HoldersOf(others);
    for (HeldSocket& held : facts.sockets) {
        const auto holder = holders.find(held.socket.inode);
        if (holder != holders.end()) {
            held.pid = holder->second.pid;
            held.name = holder->second.name;
        }
    }
}

} // namespace

void GatherNetwork(DoctorFacts& facts, const std::vector<UdpSocketFacts>& own)
{
    const OtherNetwork network(facts.pid);
    facts.isNetworkSeen = network.IsThere();
    if (facts.isNetworkSeen) {
        facts.interfaces = Interfaces();
        AddMemberships(facts.pid, facts.interfaces);
        GatherRoutes(facts);
        GatherLimits(facts);
    }
    GatherSockets(facts, own);
}

NetworkCounts NetworkCountsOf(int pid)
{
    const std::string counts = NetworkText(pid, "snmp");
    return { .sourceFilterDrops = ReadCounter(NetworkText(pid, "netstat"), "TcpExt", "IPReversePathFilter"),
        .closedPortDatagrams = ReadCounter(counts, "Udp", "NoPorts"),
        .unreachableMessages = ReadCounter(counts, "Icmp", "InDestUnreachs") };
}

} // namespace arqctl
