#include <algorithm>

#include "arqctl/core/checks.h"
#include "common/endpoint.h"

namespace arqctl {

namespace {

constexpr const char* NOT_SEEN = "the proxy's network is not to be seen from here";
constexpr const char* NOTHING_YET = "this is looked at beside a proxy that runs";
constexpr const char* NO_GROUP = "the input is no group";

const InterfaceFacts* InterfaceOf(const DoctorFacts& facts, const std::string& name)
{
    const auto found
        = std::ranges::find_if(facts.interfaces, [&](const InterfaceFacts& one) { return one.name == name; });
    return found == facts.interfaces.end() ? nullptr : &*found;
}

// The one that a group would come in by: up, no loopback; the loopback where there is no other.
std::string LikelyInterface(const DoctorFacts& facts)
{
    const auto found = std::ranges::find_if(facts.interfaces,
        [](const InterfaceFacts& one) { return one.isUp && one.isMulticast && !one.isLoopback; });
    return found == facts.interfaces.end() ? "lo" : found->name;
}

const InterfaceFacts* JoinedOn(const DoctorFacts& facts)
{
    uint32_t group = 0;
    if (!common::ParseAddress(facts.options.group, group))
        return nullptr;
    const auto found = std::ranges::find_if(facts.interfaces,
        [&](const InterfaceFacts& one) { return std::ranges::find(one.groups, group) != one.groups.end(); });
    return found == facts.interfaces.end() ? nullptr : &*found;
}

// Where the group comes in: where it is joined, else where the route leads.
const InterfaceFacts* GroupInterface(const DoctorFacts& facts)
{
    if (const InterfaceFacts* joined = JoinedOn(facts))
        return joined;
    return InterfaceOf(facts, facts.inputGroupInterface.value_or(""));
}

Finding JudgeRoute(const DoctorFacts& facts, const std::string& group, const std::optional<std::string>& to,
    const std::string& loss, const std::string& advice)
{
    if (!facts.isNetworkSeen || !to)
        return NotApplicable(NOT_SEEN);
    if (to->empty())
        return Fault("no route leads to " + group + ": " + loss, advice,
            "ip route add 224.0.0.0/4 dev " + LikelyInterface(facts));
    return Good("the route to " + group + " leads to " + *to);
}

Finding JudgeInterface(const InterfaceFacts& one, const std::string& group)
{
    if (!one.isUp)
        return Fault(one.name + ", which " + group + " comes in by, is down",
            "Set it up; its static routes have to be set again", "ip link set " + one.name + " up");
    if (one.isLoopback)
        return Warning(group + " comes in by " + one.name + ": only what this machine sends is heard",
            "Lead the route to the interface of the network that the group comes from");
    if (!one.isMulticast)
        return Fault(
            one.name + " takes no multicast", "Switch it on", "ip link set " + one.name + " multicast on");
    if (!one.isRunning)
        return Fault(one.name + ", which " + group + " comes in by, has no carrier",
            "Look at the cable and the switch", "ip link show " + one.name);
    return Good(one.name + " is up and takes multicast");
}

bool IsInputSilent(const DoctorFacts& facts)
{
    return facts.first.statistics && facts.second.statistics
        && facts.first.statistics->receivedPackets == facts.second.statistics->receivedPackets;
}

using NetworkCount = std::optional<uint64_t> CountsLook::*;

// How much it has grown between the looks; 0 where it is not to be seen.
uint64_t GrowthOf(const DoctorFacts& facts, NetworkCount count)
{
    const auto before = facts.first.*count, after = facts.second.*count;
    return before && after && *after > *before ? *after - *before : 0;
}

uint64_t FilteredBetween(const DoctorFacts& facts)
{
    return GrowthOf(facts, &CountsLook::sourceFilterDrops);
}

Finding JudgeStrict(const DoctorFacts& facts, const InterfaceFacts& one)
{
    const std::string command = "sysctl -w net.ipv4.conf." + one.name + ".rp_filter=2";
    const std::string advice = "Make it loose: the sender needs a route then, but not by this interface";
    if (const uint64_t refused = FilteredBetween(facts); refused > 0)
        return Fault(Say("the strict filter on ", one.name, " has just refused ", refused,
                         " datagrams whose senders' route leads elsewhere"),
            advice, command);
    if (facts.sourceInterface && *facts.sourceInterface != one.name)
        return Fault("strict on " + one.name + ", while the route to " + facts.source
                + (facts.sourceInterface->empty() ? " is missing" : " leads to " + *facts.sourceInterface)
                + ": its datagrams are refused without a word",
            advice, command);
    if (facts.sourceInterface || facts.defaultInterface == one.name)
        return Good("strict on " + one.name + ", where the route to senders leads too");
    const std::string text = "strict on " + one.name + ", while the default route "
        + (facts.defaultInterface.value_or("").empty() ? "is missing" : "leads to " + *facts.defaultInterface)
        + ": a sender outside " + one.name + "'s own subnet is refused without a word";
    return IsInputSilent(facts) ? Fault(text + ", and no input comes", advice, command)
                                : Warning(text, advice, command);
}

} // namespace

Finding CheckListenAddress(const DoctorFacts& facts)
{
    if (!facts.options.idleAddress.empty())
        return Warning("'" + facts.options.idleAddress
                + "' is no group, and has no effect: the input is taken on every address",
            "Give a group from 224.0.0.0 to 239.255.255.255, or nothing");
    return Good(facts.options.group.empty() ? "the input is taken on every address"
                                            : "the input is the group " + facts.options.group);
}

Finding CheckGroupRoute(const DoctorFacts& facts)
{
    if (facts.options.group.empty())
        return NotApplicable(NO_GROUP);
    return JudgeRoute(facts, facts.options.group, facts.inputGroupInterface, "the proxy cannot join it",
        facts.isRunning ? "Add one, then start the proxy again: it joins at its start" : "Add one");
}

Finding CheckGroupInterface(const DoctorFacts& facts)
{
    if (facts.options.group.empty())
        return NotApplicable(NO_GROUP);
    if (!facts.isNetworkSeen)
        return NotApplicable(NOT_SEEN);
    const InterfaceFacts* one = GroupInterface(facts);
    return one == nullptr ? NotApplicable("no route tells which one it is")
                          : JudgeInterface(*one, facts.options.group);
}

Finding CheckGroupJoined(const DoctorFacts& facts)
{
    if (facts.options.group.empty() || !facts.isRunning)
        return NotApplicable(facts.options.group.empty() ? NO_GROUP : "the start joins it");
    if (!facts.isNetworkSeen)
        return NotApplicable(NOT_SEEN);
    const InterfaceFacts* joined = JoinedOn(facts);
    const std::string again = "Start the proxy again: it joins at its start";
    if (joined == nullptr)
        return Fault(facts.options.group + " is joined on no interface: no input arrives", again);
    if (facts.inputGroupInterface && !facts.inputGroupInterface->empty()
        && *facts.inputGroupInterface != joined->name)
        return Warning(facts.options.group + " is joined on " + joined->name
                + ", while the route now leads to " + *facts.inputGroupInterface,
            again);
    return Good(facts.options.group + " is joined on " + joined->name);
}

Finding CheckSourceFilter(const DoctorFacts& facts)
{
    constexpr int STRICT = 1;
    if (facts.options.group.empty())
        return NotApplicable(NO_GROUP);
    const InterfaceFacts* one = facts.isNetworkSeen ? GroupInterface(facts) : nullptr;
    if (one == nullptr || one->sourceFilter < 0)
        return NotApplicable("which interface the group comes in by is not known");
    if (one->sourceFilter == STRICT)
        return JudgeStrict(facts, *one);
    return Good(one->name
        + (one->sourceFilter == 0 ? " takes every sender" : " takes every sender that has a route"));
}

Finding CheckOutputRoute(const DoctorFacts& facts)
{
    const std::string group = OutputGroup(facts.options);
    if (facts.options.unicastPort == 0 || group.empty())
        return NotApplicable("the output goes to no group");
    return JudgeRoute(facts, group, facts.outputGroupInterface, "no media leave", "Add one");
}

Finding CheckOutputInterfaces(const DoctorFacts& facts)
{
    constexpr int MOST = 4, WITH_MEDIA = 2;
    if (facts.options.interfaces == 0)
        return NotApplicable("without -n the way out is left to routing");
    if (facts.options.destinations.empty() || facts.options.unicastPort != 0)
        return NotApplicable("-n is for unicast destinations of -a, and there is none");
    if (!facts.isNetworkSeen)
        return NotApplicable(NOT_SEEN);
    const int count = std::min(facts.options.interfaces, MOST);
    for (int i = 0; i < count; ++i) {
        const std::string name = "eth" + std::to_string(i);
        const InterfaceFacts* one = InterfaceOf(facts, name);
        const std::string use = ", which -n " + std::to_string(facts.options.interfaces) + " asks for,";
        if (one == nullptr)
            return Fault(name + use + " is missing: its share of the media goes by routing",
                "Give the interface this name while it is down, or leave -n out; then start the proxy again");
        if (!one->isUp || !one->isRunning)
            return { {}, i < WITH_MEDIA ? Verdict::Fault : Verdict::Warning,
                name + use + (one->isUp ? " has no carrier" : " is down"), "Set it up",
                "ip link set " + name + " up" };
    }
    return Good(
        "eth0" + (count > 1 ? " to eth" + std::to_string(count - 1) + " are" : std::string(" is")) + " up");
}

Finding CheckUnreachable(const DoctorFacts& facts)
{
    if (!facts.second.unreachableMessages)
        return NotApplicable(facts.isRunning ? NOT_SEEN : NOTHING_YET);
    const uint64_t messages = GrowthOf(facts, &CountsLook::unreachableMessages);
    if (messages > 0)
        return Warning(Say(messages, messages == 1 ? " message has" : " messages have",
                           " just come back: a destination, or its port, is not reached"),
            "Look which one it is, whether its receiver runs, and on which port",
            "tcpdump -ni any -c 3 icmp[icmptype]=icmp-unreach");
    return Good("no message has come back that a destination is not reached");
}

Finding CheckClosedPorts(const DoctorFacts& facts)
{
    if (!facts.second.closedPortDatagrams)
        return NotApplicable(facts.isRunning ? NOT_SEEN : NOTHING_YET);
    const uint64_t datagrams = GrowthOf(facts, &CountsLook::closedPortDatagrams);
    const std::string input = WithoutCommas(facts.options.listenPort),
                      pings = WithoutCommas(PingPort(facts.options)),
                      requests = WithoutCommas(facts.options.requestPort);
    if (datagrams > 0)
        return Warning(Say(datagrams, datagrams == 1 ? " datagram has" : " datagrams have",
                           " just come to UDP ports where nobody listens"),
            "Compare them with the proxy's: " + input + " takes input, " + pings + " pings, " + requests
                + " requests",
            "tcpdump -ni any -Q in -c 20 udp and not dst port " + input);
    return Good("no datagram came to a UDP port where nobody listens");
}

Finding CheckConnections(const DoctorFacts& facts)
{
    constexpr uint64_t HUNDRED = 100, FULL = 90, FILLING = 70;
    if (!facts.connections || !facts.connectionsLimit || *facts.connectionsLimit == 0)
        return NotApplicable("no table of connections is kept");
    const uint64_t percent = *facts.connections * HUNDRED / *facts.connectionsLimit;
    const std::string text = Say(*facts.connections, " of ", *facts.connectionsLimit,
        " connections are in the table, ", percent, " %");
    const std::string command
        = "sysctl -w net.netfilter.nf_conntrack_max=" + std::to_string(*facts.connectionsLimit * 2);
    const std::string advice = "Make it larger, or leave the proxy's ports out of it (notrack)";
    if (percent >= FULL)
        return Fault(text + ": new receivers are dropped when it is full", advice, command);
    return percent >= FILLING ? Warning(text, advice, command) : Good(text);
}

} // namespace arqctl
