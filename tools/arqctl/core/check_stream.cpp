#include <algorithm>

#include "arqctl/core/amount_text.h"
#include "arqctl/core/checks.h"
#include "common/endpoint.h"

namespace arqctl {

namespace {

constexpr const char* NO_COUNTS = "what the proxy counts is not to be seen";
constexpr const char* NOT_STARTED = "the proxy does not run yet";

bool HasLooks(const DoctorFacts& facts)
{
    return facts.first.statistics && facts.second.statistics;
}

Finding NoCounts(const DoctorFacts& facts)
{
    return NotApplicable(facts.isRunning ? NO_COUNTS : NOT_STARTED);
}

double SecondsBetween(const DoctorFacts& facts)
{
    constexpr double US = 1e6;
    return static_cast<double>(facts.second.atUs - facts.first.atUs) / US;
}

// Of all datagrams that leave, from their number and the mean size of what comes in. The proxy's figure is a 32-bit one.
double SentBitRate(const DoctorFacts& facts)
{
    const uint64_t before = facts.first.statistics->sentPackets, now = facts.second.statistics->sentPackets;
    const auto pace = PaceOf(facts);
    const double seconds = SecondsBetween(facts);
    if (!pace || now <= before || seconds <= 0)
        return 0;
    return static_cast<double>(now - before) / seconds * pace->packetBytes * 8;
}

bool IsGroup(const DestinationFacts& destination)
{
    return !destination.addresses.empty()
        && common::Endpoint { destination.addresses.front(), 0 }.IsMulticast();
}

bool IsServed(const DestinationFacts& destination, const std::vector<std::string>& receivers)
{
    return std::ranges::any_of(destination.addresses, [&](uint32_t address) {
        return std::ranges::find(receivers, common::AddressText(address)) != receivers.end();
    });
}

// With -b only the first group is served; without it, no group is.
Finding JudgeWithGroup(const DoctorFacts& facts)
{
    const auto& all = facts.destinations;
    const auto groups = std::ranges::count_if(all, IsGroup);
    if (groups == 0)
        return Fault("-b is given, and no group stands in -a: nothing is sent until a receiver pings",
            "Name a group in -a, or leave -b out");
    if (static_cast<size_t>(groups) < all.size() || groups > 1)
        return Warning("beside " + OutputGroup(facts.options) + " nothing else of -a is served",
            "Leave the rest out of -a, or serve it by another instance");
    return Good("the group " + OutputGroup(facts.options) + " gets the media");
}

Finding JudgeUnicast(const DoctorFacts& facts, const DestinationFacts& one)
{
    const std::string add = "arqctl -I " + std::to_string(facts.options.instance) + " add " + one.text;
    if (one.addresses.empty())
        return Fault("'" + one.text + "' of -a is a name that nobody knows: it is not served",
            "Correct the name; blanks and ports do not belong to it", "getent ahostsv4 '" + one.text + "'");
    if (IsGroup(one))
        return Fault(
            "the group " + one.text + " of -a is skipped without -b", "Give -b a port that receivers ping");
    if (HasLooks(facts) && !IsServed(one, facts.second.statistics->receivers))
        return Fault("'" + one.text
                + "' of -a is not in the list: its name was not known at the start, or it was deleted",
            "Add it", add);
    return Good("");
}

} // namespace

Finding CheckInput(const DoctorFacts& facts)
{
    if (!HasLooks(facts))
        return NoCounts(facts);
    const uint64_t before = facts.first.statistics->receivedPackets,
                   now = facts.second.statistics->receivedPackets;
    const std::string look = "tcpdump -ni any -c 5 udp port " + std::to_string(facts.options.listenPort);
    const std::string seconds = SecondsText(SecondsBetween(facts));
    if (now == 0)
        return Fault("no input has ever come (or none since the counts were reset)",
            "Look whether it reaches this machine, and at the sender", look);
    if (now == before)
        return Fault(Say("no input for ", seconds, "; ", now, " packets came before"),
            "Look whether it reaches this machine, and at the sender", look);
    const auto pace = PaceOf(facts);
    return Good(pace
            ? Say(static_cast<uint64_t>(pace->packets), " packets/s, ", BitRateText(pace->payloadBits))
            : Say("packets come in: ", now, " so far"));
}

Finding CheckInputLoss(const DoctorFacts& facts)
{
    if (facts.options.isRawInput)
        return NotApplicable("with -u the input has no numbers");
    if (!HasLooks(facts))
        return NoCounts(facts);
    const uint32_t lost = facts.second.statistics->receivedLoss; // wraps
    const uint32_t growth = lost - facts.first.statistics->receivedLoss;
    const std::string advice
        = "What is lost before the proxy nobody brings back: look at the way to it, at 'input-drops', and "
          "for packets in the wrong order, which count too";
    const bool wasReset = lost < facts.first.statistics->receivedLoss;
    if (growth > 0 && !wasReset)
        return Fault(
            Say(growth, " input packets have just been lost, ", lost, " since the last reset"), advice);
    if (lost > 0)
        return Warning(Say(lost, " input packets were lost since the last reset, none just now"), advice,
            "arqctl -I " + std::to_string(facts.options.instance) + " reset rx");
    return Good("no input packet is missing");
}

Finding CheckDeliberateLoss(const DoctorFacts& facts)
{
    if (!facts.deliberateLoss)
        return NoCounts(facts);
    const LossFinding& loss = *facts.deliberateLoss;
    switch (loss.state) {
    case LossState::On:
        return Warning(
            Say("deliberate loss is on: ", loss.withheld, " of ", loss.packets, " packets were withheld"),
            "Switch it off, unless it is a test",
            "arqctl -I " + std::to_string(facts.options.instance) + " impair off");
    case LossState::Off:
        return Good(Say("none of ", loss.packets, " packets was withheld"));
    case LossState::Unknown:
        break;
    }
    return NotApplicable("whether packets are withheld is not known: too little was sent",
        "arqctl -I " + std::to_string(facts.options.instance) + " impair status");
}

Finding CheckBitRates(const DoctorFacts& facts)
{
    constexpr double SIGN = 2147483648.0, WRAPPED = 4294967296.0;
    if (!HasLooks(facts))
        return NoCounts(facts);
    const double rate
        = std::max(SentBitRate(facts), static_cast<double>(facts.second.statistics->sentBitRate));
    if (rate >= WRAPPED)
        return Warning("SEND_BITRATE has wrapped: about " + BitRateText(rate) + " leave",
            "Take rates from the packets", "arqctl -I " + std::to_string(facts.options.instance) + " stats");
    if (rate >= SIGN)
        return Warning("SEND_BITRATE is printed below 0: " + BitRateText(rate) + " leave",
            "Add 4,294,967,296 to it, or take rates from the packets",
            "arqctl -I " + std::to_string(facts.options.instance) + " stats");
    return Good("the proxy's figures have not wrapped");
}

Finding CheckDestinations(const DoctorFacts& facts)
{
    if (facts.destinations.empty() && facts.options.unicastPort == 0)
        return NotApplicable("no destination is given: receivers join by ping");
    if (facts.options.unicastPort != 0)
        return JudgeWithGroup(facts);
    for (const DestinationFacts& one : facts.destinations) {
        Finding finding = JudgeUnicast(facts, one);
        if (finding.verdict != Verdict::Good)
            return finding;
    }
    const auto count = static_cast<uint64_t>(facts.destinations.size());
    const std::string all = count == 1 ? "the one of -a is" : Say("all ", count, " of -a are");
    return Good(all + (HasLooks(facts) ? " in the list" : " known"));
}

Finding CheckReceivers(const DoctorFacts& facts)
{
    constexpr uint64_t MOST = 50;
    if (!HasLooks(facts))
        return NoCounts(facts);
    const std::string port = WithoutCommas(PingPort(facts.options));
    const uint64_t count = facts.second.statistics->receivers.size();
    const std::string text = Say(count, " of ", MOST, " places in the list are taken");
    if (count >= MOST)
        return Warning(text + ": nobody else is served",
            "End or delete a receiver that needs no stream, or serve others by another instance",
            "arqctl -I " + WithoutCommas(facts.options.instance) + " list");
    if (count == 0 && OutputGroup(facts.options).empty())
        return Warning("the list is empty: nothing is sent",
            "Add a destination, or look whether receivers ping: UDP port " + port
                + ", and again within 5 s each time",
            "tcpdump -ni any -c 5 udp dst port " + port);
    return Good(text);
}

} // namespace arqctl
