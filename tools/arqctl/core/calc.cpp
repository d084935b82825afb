#include "arqctl/core/calc.h"

#include <algorithm>
#include <cmath>

#include "arqrx/core/request_window.h"
#include "arqrx/core/settings.h"

namespace arqctl {

namespace {

constexpr int64_t LATENCY_STEP_US = 10'000;
constexpr int64_t LATENCY_MARGIN_US = 20'000; // timers are late, and no round trip is always the same
constexpr int64_t LEAST_RING = 1'024; // what a pacer needs; a smaller one saves a megabyte
constexpr int64_t REACH_PACKETS
    = 32'767; // behind the newest; beyond, a 16-bit number would be one ahead of it
constexpr int64_t RTP_BYTES = 12;
constexpr int64_t UDP_IP_BYTES = 28;
constexpr int64_t TAG_BYTES = 8;
constexpr int64_t PING_BYTES = TAG_BYTES + 4 + UDP_IP_BYTES;
constexpr int64_t ECHO_BYTES = TAG_BYTES + 9 + UDP_IP_BYTES; // to the proxy; it comes back without the tag
constexpr int64_t REQUEST_BYTES = TAG_BYTES + 10 + UDP_IP_BYTES;
constexpr int64_t NUMBER_BYTES = 2;
constexpr double REQUESTS_A_SECOND = 1'000; // a receiver rests 1 ms between two
constexpr double PINGS_A_SECOND = 1;
constexpr uint64_t WRAP = uint64_t { 1 } << 32;
constexpr int64_t GROSS_STEP = 1'000;

RepairLine RepairLineOf(const CalcInput& input, double packetRate, int64_t latencyUs, int64_t ringPackets)
{
    return { packetRate, input.lossDown, input.lossUp, input.roundTripUs, latencyUs, input.holdOffUs,
        std::min(ringPackets - 1, REACH_PACKETS) };
}

// An outage takes its time of the latency, and so much less has to do for single losses as long as it lasts.
bool IsEnough(const CalcInput& input, double packetRate, int64_t latencyUs)
{
    const int64_t leftUs = latencyUs - input.outageUs - LATENCY_MARGIN_US;
    if (leftUs <= 0)
        return false;
    const Repair repair = RepairOfRandomLoss(RepairLineOf(input, packetRate, leftUs, LARGEST_RING));
    return repair.tries > 0 && repair.left <= input.targetLoss;
}

void ChooseLatency(const CalcInput& input, CalcResult& result)
{
    result.latencyUs = input.latencyUs;
    if (input.latencyUs > 0)
        return;
    const int64_t leastUs = std::max(LEAST_LATENCY_US, input.roundTripUs + input.outageUs);
    int64_t latencyUs = (leastUs + LATENCY_STEP_US - 1) / LATENCY_STEP_US * LATENCY_STEP_US;
    while (latencyUs <= MOST_LATENCY_US && !IsEnough(input, result.packetRate, latencyUs))
        latencyUs += LATENCY_STEP_US;
    result.isTargetReached = latencyUs <= MOST_LATENCY_US;
    result.latencyUs = std::min(latencyUs, MOST_LATENCY_US);
}

arqrx::Settings ReceiverSettings(const CalcInput& input, const CalcResult& result)
{
    arqrx::Settings settings;
    settings.streamId = 1; // `auto` has one
    settings.latencyUs = result.latencyUs;
    settings.holdOffUs = input.holdOffUs;
    settings.ringPackets = static_cast<uint32_t>(result.ringPackets);
    settings.proxyBitRate = static_cast<uint32_t>(result.grossBitRate);
    return settings;
}

int64_t BudgetMs(const arqrx::RequestWindow& window)
{
    return int64_t { window.retries } * window.intervalMs + window.extraMs;
}

// The receiver's window follows the bit rate a little, so the largest bit rate is looked for with the shortest
// window.
void ChooseBudget(const CalcInput& input, CalcResult& result)
{
    arqrx::Settings settings = ReceiverSettings(input, result);
    settings.proxyBitRate = 0;
    const int64_t shortestMs = BudgetMs(arqrx::ChooseWindow(settings));
    const auto most = static_cast<int64_t>((WRAP - 1) / static_cast<uint64_t>(shortestMs));
    result.grossBitRate = most / GROSS_STEP * GROSS_STEP;
    settings.proxyBitRate = static_cast<uint32_t>(result.grossBitRate);
    const arqrx::RequestWindow window = arqrx::ChooseWindow(settings);
    const auto packetBytes = static_cast<uint32_t>(input.payloadBytes + RTP_BYTES);
    result.windowMs = window.MaximumAgeMs();
    result.budgetMs = BudgetMs(window);
    result.budgetBytes = window.BudgetBytes(settings.proxyBitRate);
    result.requestNumbers = arqrx::MostNumbers(settings, window, packetBytes);
}

// The ring has to hold whatever may still be sent again.
void ChooseRing(CalcResult& result)
{
    const double needed = std::ceil(result.packetRate * static_cast<double>(result.windowMs) / 1e3);
    result.ringNeeded = static_cast<int64_t>(needed);
    result.ringPackets = LEAST_RING;
    while (result.ringPackets < result.ringNeeded && result.ringPackets < LARGEST_RING)
        result.ringPackets *= 2;
}

CalcFlow FlowOf(double packetRate, int64_t bytes)
{
    return { packetRate, packetRate * static_cast<double>(bytes) * 8 };
}

CalcFlow RequestFlow(double numbers)
{
    const double requests = std::min(numbers, REQUESTS_A_SECOND);
    return { requests, (requests * REQUEST_BYTES + numbers * NUMBER_BYTES) * 8 };
}

CalcFlows FlowsOf(const CalcInput& input, const CalcResult& result)
{
    const int64_t mediaBytes = input.payloadBytes + RTP_BYTES + UDP_IP_BYTES;
    const double numbers = result.packetRate * result.random.asked;
    CalcFlows flows;
    flows.media = FlowOf(result.packetRate, mediaBytes);
    flows.resends = FlowOf(numbers * (1 - input.lossUp), mediaBytes);
    flows.requests = RequestFlow(numbers);
    flows.pings = FlowOf(PINGS_A_SECOND, PING_BYTES);
    flows.echoes = FlowOf(PINGS_A_SECOND, ECHO_BYTES);
    return flows;
}

} // namespace

bool CalcResult::IsHeld() const
{
    return std::ranges::all_of(limits, &CalcLimit::isHeld);
}

CalcResult Calculate(const CalcInput& input)
{
    CalcResult result;
    result.packetRate = static_cast<double>(input.bitRate) / 8 / static_cast<double>(input.payloadBytes);
    ChooseLatency(input, result);
    ChooseBudget(input, result);
    ChooseRing(result);
    const RepairLine line = RepairLineOf(input, result.packetRate, result.latencyUs, result.ringPackets);
    result.random = RepairOfRandomLoss(line);
    result.tryFails = FailingTries(line);
    if (input.outageUs > 0) {
        result.outagePackets
            = std::max(1.0, std::round(static_cast<double>(input.outageUs) * result.packetRate / 1e6));
        result.outage = RepairOfOutage(line, input.outageUs);
    }
    result.flows = FlowsOf(input, result);
    result.limits = CalcLimits(input, result);
    return result;
}

} // namespace arqctl
