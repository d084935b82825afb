#include <algorithm>

#include "arqctl/core/checks.h"

namespace arqctl {

namespace {

constexpr uint64_t A_FEW = 2; // datagrams that may still be on their way into the proxy
constexpr size_t MOST_RECEIVERS = 50;

const HeldSocket* SocketAt(const DoctorFacts& facts, uint16_t port, bool isOwn)
{
    const auto found = std::ranges::find_if(facts.sockets, [&](const HeldSocket& held) {
        return held.socket.port == port && (facts.pid != 0 && held.pid == facts.pid) == isOwn;
    });
    return found == facts.sockets.end() ? nullptr : &*found;
}

bool IsGroupJoined(const DoctorFacts& facts)
{
    uint32_t group = 0;
    return !common::ParseAddress(facts.options.group, group)
        || std::ranges::any_of(facts.interfaces, [&](const InterfaceFacts& one) {
               return std::ranges::find(one.groups, group) != one.groups.end();
           });
}

// Nothing else explains that the proxy gets nothing: it has its port and its group, the source filter refused nothing.
bool IsInputHeldBack(const DoctorFacts& facts)
{
    const CountsLook &first = facts.first, &second = facts.second;
    return facts.arrivals->input > A_FEW && first.statistics && second.statistics
        && second.statistics->receivedPackets == first.statistics->receivedPackets
        && first.sourceFilterDrops == second.sourceFilterDrops && IsGroupJoined(facts)
        && SocketAt(facts, facts.options.listenPort, true) != nullptr;
}

// A socket of another program that is bound to this very address gets what is sent there.
bool IsForAnother(const DoctorFacts& facts, const Pinger& pinger)
{
    return std::ranges::any_of(facts.sockets, [&](const HeldSocket& held) {
        return held.pid != facts.pid && held.socket.port == pinger.to.port
            && held.socket.address == pinger.to.address;
    });
}

const Pinger* PingerHeldBack(const DoctorFacts& facts)
{
    const auto& statistics = facts.second.statistics;
    if (!statistics || statistics->receivers.size() >= MOST_RECEIVERS
        || SocketAt(facts, PingPort(facts.options), true) == nullptr)
        return nullptr;
    const auto& receivers = statistics->receivers;
    const auto found = std::ranges::find_if(facts.arrivals->pingers, [&](const Pinger& pinger) {
        return std::ranges::find(receivers, common::AddressText(pinger.from.address)) == receivers.end()
            && !IsForAnother(facts, pinger);
    });
    return found == facts.arrivals->pingers.end() ? nullptr : &*found;
}

} // namespace

Finding CheckFirewall(const DoctorFacts& facts)
{
    const std::string input = WithoutCommas(facts.options.listenPort),
                      pings = WithoutCommas(PingPort(facts.options)),
                      requests = WithoutCommas(facts.options.requestPort);
    const std::string rules = "nft list ruleset";
    if (facts.arrivals && IsInputHeldBack(facts))
        return Fault(Say(facts.arrivals->input, " datagrams for UDP port ", input,
                         " have just reached this machine, and none the proxy"),
            "A rule of the firewall drops them: let them in", rules);
    const Pinger* const pinger = facts.arrivals ? PingerHeldBack(facts) : nullptr;
    if (pinger != nullptr)
        return Fault("pings of " + common::AddressText(pinger->from.address) + " for UDP port " + pings
                + " have just reached this machine, and not the proxy",
            "A rule of the firewall drops them: let in UDP " + pings + " and " + requests + " from receivers",
            rules);
    return NotApplicable(
        "not everything can be judged from here; let in UDP " + input + ", " + pings + " and " + requests,
        rules);
}

Finding CheckPings(const DoctorFacts& facts)
{
    if (!facts.arrivals)
        return NotApplicable(facts.isRunning ? "who pings only root sees" : "the proxy does not run yet");
    const std::vector<Pinger> two = TwoOfOneReceiver(facts.arrivals->pingers);
    if (!two.empty())
        return Fault("pings come from " + common::EndpointText(two[0].from) + " and "
                + common::EndpointText(two[1].from)
                + (two[0].streamId ? " with one stream ID" : " without a stream ID")
                + ": the stream goes now to the one, now to the other",
            "Give each receiver a stream ID of its own (arqrx --id auto), or end one");
    if (facts.arrivals->pingers.empty())
        return NotApplicable("nobody has pinged between the looks");
    const auto count = static_cast<uint64_t>(facts.arrivals->pingers.size());
    return Good(Say(count, count == 1 ? " receiver has" : " receivers have", " pinged between the looks"));
}

} // namespace arqctl
