#include "arqctl/core/checks.h"

#include "base/rtp.h"
#include <algorithm>

namespace arqctl {

namespace {

struct Check {
    const char* name;
    Finding (*judge)(const DoctorFacts& facts);
    bool needsOptions = true; // says nothing of a proxy whose command line is not to be seen
};

constexpr Check CHECKS[] = {
    { "process", CheckProcess, false },
    { "control-socket", CheckControlSocket, false },
    { "control-rights", CheckControlRights, false },
    { "dev-rights", CheckDeviceFolder },
    { "run-rights", CheckRunFolder },
    { "open-files", CheckOpenFiles },
    { "encryption", CheckEncryption },
    { "clock", CheckClock, false },
    { "lock-port", CheckLockPort },
    { "listen-port", CheckListenPort },
    { "ping-port", CheckPingPort },
    { "request-port", CheckRequestPort },
    { "ephemeral-ports", CheckEphemeralPorts },
    { "listen-address", CheckListenAddress },
    { "group-route", CheckGroupRoute },
    { "group-interface", CheckGroupInterface },
    { "group-joined", CheckGroupJoined },
    { "rp-filter", CheckSourceFilter },
    { "output-route", CheckOutputRoute },
    { "output-interfaces", CheckOutputInterfaces },
    { "unreachable", CheckUnreachable },
    { "closed-ports", CheckClosedPorts },
    { "conntrack", CheckConnections, false },
    { "firewall", CheckFirewall },
    { "rmem-max", CheckReceiveBufferLimit, false },
    { "receive-buffer", CheckReceiveBuffer },
    { "receive-queue", CheckReceiveQueue },
    { "input-drops", CheckInputDrops },
    { "request-drops", CheckRequestDrops },
    { "input", CheckInput, false },
    { "input-loss", CheckInputLoss },
    { "deliberate-loss", CheckDeliberateLoss },
    { "bit-rates", CheckBitRates, false },
    { "destinations", CheckDestinations },
    { "receivers", CheckReceivers },
    { "pings", CheckPings },
    { "ring-time", CheckRingTime },
    { "request-budget", CheckRequestBudget },
    { "pacing-rate", CheckPacingRate },
    { "pacing-quota", CheckPacingQuota },
};

bool HasTwoAnswers(const DoctorFacts& facts)
{
    return facts.first.statistics && facts.second.statistics && facts.second.atUs > facts.first.atUs;
}

} // namespace

std::vector<Finding> Diagnose(const DoctorFacts& facts)
{
    std::vector<Finding> findings;
    for (const Check& check : CHECKS) {
        findings.push_back(check.needsOptions && !facts.areOptionsKnown
                ? NotApplicable("the proxy's command line is not to be seen from here")
                : check.judge(facts));
        findings.back().name = check.name;
    }
    return findings;
}

// The proxy's own figure of bit/s is of its last full second, so packets of ours and its bits may be of two seconds: the
// size of a packet is good enough for a time.
std::optional<InputPace> PaceOf(const DoctorFacts& facts)
{
    constexpr double BITS = 8, US = 1e6;
    if (!facts.isRunning && facts.expectedBitRate > 0)
        return InputPace { facts.expectedBitRate / (BITS * facts.expectedPayload), facts.expectedBitRate,
            facts.expectedPayload };
    if (!HasTwoAnswers(facts))
        return std::nullopt;
    const Statistics& now = *facts.second.statistics;
    const uint64_t packets = now.receivedPackets - facts.first.statistics->receivedPackets;
    if (now.receivedPackets <= facts.first.statistics->receivedPackets || now.receivedBitRate == 0)
        return std::nullopt;
    const double rate
        = static_cast<double>(packets) * US / static_cast<double>(facts.second.atUs - facts.first.atUs);
    const double payload
        = std::max(static_cast<double>(now.receivedBitRate) - rate * RTP_HEADER_BYTES * BITS, rate);
    return InputPace { rate, payload, payload / rate / BITS };
}

} // namespace arqctl
