#include <algorithm>

#include "arqctl/core/checks.h"

namespace arqctl {

namespace {

constexpr uint64_t WANTED_BYTES
    = 524288; // the most that the proxy asks for; the kernel shows and uses twice as much
constexpr const char* RAISE_COMMAND = "sysctl -w net.core.rmem_max=524288";
constexpr const char* NO_INPUT_SOCKET = "the input's socket is not to be seen from here";

} // namespace

Finding CheckReceiveBufferLimit(const DoctorFacts& facts)
{
    if (!facts.receiveBufferLimit)
        return NotApplicable("net.core.rmem_max is not to be seen from here");
    const std::string text = Say("net.core.rmem_max is ", *facts.receiveBufferLimit);
    if (*facts.receiveBufferLimit >= WANTED_BYTES)
        return Good(text);
    return Warning(Say(text, ", less than the ", WANTED_BYTES, " that the input asks for"),
        "Raise it (and in /etc/sysctl.d for the next start of the machine), then start the proxy again",
        RAISE_COMMAND);
}

Finding CheckReceiveBuffer(const DoctorFacts& facts)
{
    if (!facts.receiveBuffer)
        return NotApplicable(facts.isRunning ? NO_INPUT_SOCKET : "there is no socket before the start");
    const std::string text = Say("the input's socket holds ", *facts.receiveBuffer, " bytes");
    if (*facts.receiveBuffer >= 2 * WANTED_BYTES)
        return Good(text);
    const bool isLimitHigh = facts.receiveBufferLimit.value_or(0) >= WANTED_BYTES;
    return Warning(Say(text, ", ", 2 * WANTED_BYTES, " is the best: bursts may be lost"),
        isLimitHigh ? "The limit has been raised since: start the proxy again"
                    : "Raise the limit, then start the proxy again",
        isLimitHigh ? "" : RAISE_COMMAND);
}

Finding CheckReceiveQueue(const DoctorFacts& facts)
{
    constexpr uint64_t HUNDRED = 100, FULL = 90, FILLING = 50;
    if (!facts.first.input || !facts.second.input)
        return NotApplicable(facts.isRunning ? NO_INPUT_SOCKET : "there is no socket before the start");
    // Twice in a row: what one burst left for a moment is no finding.
    const uint64_t waiting
        = std::min(facts.first.input->receiveQueueBytes, facts.second.input->receiveQueueBytes);
    const uint64_t room = facts.receiveBuffer.value_or(2 * WANTED_BYTES);
    const uint64_t percent = room == 0 ? 0 : waiting * HUNDRED / room;
    if (percent < FILLING)
        return Good(Say(waiting, " bytes wait in the input's socket"));
    const std::string text
        = Say(waiting, " of ", room, " bytes wait in the input's socket: the proxy does not read");
    const std::string advice
        = "A destination that blocks holds everything up: delete it. Or the process stands still";
    const std::string command = "arqctl -I " + std::to_string(facts.options.instance) + " list";
    return percent >= FULL ? Fault(text, advice, command) : Warning(text, advice, command);
}

Finding CheckInputDrops(const DoctorFacts& facts)
{
    if (!facts.first.input || !facts.second.input)
        return NotApplicable(facts.isRunning ? NO_INPUT_SOCKET : "there is no socket before the start");
    const uint64_t total = facts.second.input->drops;
    const uint64_t growth = total - std::min(total, facts.first.input->drops);
    const std::string advice = "See 'receive-queue' and 'rmem-max'; or give the proxy more of a processor";
    const std::string command = "chrt -f -p 10 " + std::to_string(facts.pid);
    if (growth > 0)
        return Fault(
            Say("the kernel has just dropped ", growth, " input datagrams, ", total, " since the start"),
            advice, command);
    if (total > 0)
        return Warning(Say("the kernel dropped ", total, " input datagrams since the start, none just now"),
            advice, command);
    return Good("the kernel has dropped no input");
}

Finding CheckRequestDrops(const DoctorFacts& facts)
{
    if (!facts.first.input || !facts.second.input)
        return NotApplicable(facts.isRunning ? "its sockets are not to be seen from here"
                                             : "there are no sockets before the start");
    const uint64_t total = facts.second.otherDrops;
    const std::string advice = "Let only receivers reach these ports: a flood takes the others' turn";
    if (total > facts.first.otherDrops)
        return Fault(
            Say("the kernel has just dropped ", total - facts.first.otherDrops, " pings and requests"),
            advice, "nft list ruleset");
    if (total > 0)
        return Warning(
            Say("the kernel dropped ", total, " pings and requests since the start, none just now"), advice,
            "nft list ruleset");
    return Good("the kernel has dropped no pings and requests");
}

} // namespace arqctl
