#include "arqctl/cli/calc_report.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "common/quantity.h"

namespace arqctl {

namespace {

using Json = nlohmann::ordered_json;

// "46 s", "7.3 h", "2.1 years".
std::string LongTime(double seconds)
{
    constexpr struct {
        double seconds;
        const char* name;
    } UNITS[] = { { 365.25 * 86400, "years" }, { 86400, "days" }, { 3600, "h" }, { 60, "min" } };
    for (const auto& unit : UNITS) {
        if (seconds >= 2 * unit.seconds)
            return fmt::format("{:.3g} {}", seconds / unit.seconds, unit.name);
    }
    return fmt::format("{:.3g} s", seconds);
}

// A bit rate without an exponent: three digits, and a unit that people say.
std::string RateText(double bitsPerSecond)
{
    constexpr struct {
        double bits;
        const char* name;
    } UNITS[] = { { 1e9, "Gbit/s" }, { 1e6, "Mbit/s" }, { 1e3, "kbit/s" } };
    for (const auto& unit : UNITS) {
        if (bitsPerSecond < 0.9995 * unit.bits)
            continue;
        const double shown = bitsPerSecond / unit.bits;
        return fmt::format("{:.{}f} {}", shown, shown < 9.995 ? 2 : shown < 99.95 ? 1 : 0, unit.name);
    }
    return fmt::format("{:.0f} bit/s", bitsPerSecond);
}

std::string Share(double share)
{
    return fmt::format("{:.3g}%", share * 100);
}

// Of events: four digits, and no exponent.
std::string CountText(double count)
{
    return count < 1e4 ? fmt::format("{:.4g}", count) : fmt::format("{:.0f}", count);
}

std::string Row(const char* name, const std::string& text)
{
    return fmt::format("{:<14} {}\n", name, text);
}

double LostRate(const CalcResult& result)
{
    return result.packetRate * result.random.left;
}

// "one in 7.4 h".
std::string OneIn(double seconds)
{
    constexpr double ENOUGH_SECONDS = 1000 * 365.25 * 86400;
    return seconds > ENOUGH_SECONDS ? "less than one in 1000 years" : "one in " + LongTime(seconds);
}

std::string LostText(const CalcInput& input, const CalcResult& result)
{
    if (result.random.left <= 0)
        return "nothing";
    const double seconds = 1 / LostRate(result);
    std::string text
        = fmt::format("{:.2g} of all packets: a receiver loses {}", result.random.left, OneIn(seconds));
    if (input.receivers > 1)
        text += fmt::format(
            ", all {} together {}", input.receivers, OneIn(seconds / static_cast<double>(input.receivers)));
    return text;
}

std::string LineText(const CalcInput& input, const CalcResult& result)
{
    std::string text = Row("stream",
        fmt::format("{} of payload, {} packets/s of {} bytes", RateText(static_cast<double>(input.bitRate)),
            CountText(result.packetRate), input.payloadBytes));
    text += Row("line",
        fmt::format("{} lost on the way to a receiver, {} on the way back, round trip {}",
            Share(input.lossDown), Share(input.lossUp), common::DurationText(input.roundTripUs)));
    if (input.outageUs > 0)
        text += Row("", fmt::format("outages of up to {}", common::DurationText(input.outageUs)));
    return text;
}

std::string RepairText(const CalcInput& input, const CalcResult& result)
{
    std::string text = Row("latency", common::DurationText(result.latencyUs));
    text += Row(
        "tries", fmt::format("{}, of which each fails with {}", result.random.tries, Share(result.tryFails)));
    text += Row("left", LostText(input, result));
    if (input.outageUs > 0)
        text += Row("an outage",
            fmt::format("{:.0f} packets, {:.2g} of them for good; the first has {} tries",
                result.outagePackets, result.outagePackets * result.outage.left, result.outage.tries));
    text += Row("-q",
        fmt::format("{}, which hold {:.3g} s; {} are needed", result.ringPackets,
            static_cast<double>(result.ringPackets) / result.packetRate, result.ringNeeded));
    text += Row("-G",
        fmt::format("{}, x {} ms is below 2^32: {} bytes a request, {} packets", result.grossBitRate,
            result.budgetMs, result.budgetBytes, result.requestNumbers));
    return text;
}

std::string FlowRow(const char* name, const CalcFlow& flow, int64_t receivers)
{
    const auto count = static_cast<double>(receivers);
    return fmt::format("{:<14} {:>12} {:>13} {:>14} {:>13}\n", name, CountText(flow.packetRate) + "/s",
        RateText(flow.bitRate), CountText(flow.packetRate * count) + "/s", RateText(flow.bitRate * count));
}

std::string FlowsText(const CalcInput& input, const CalcResult& result)
{
    const CalcFlows& flows = result.flows;
    std::string text
        = fmt::format("\n{:<14} {:>26} {:>28}\n", "", "a receiver", fmt::format("all {}", input.receivers));
    text += FlowRow("media out", flows.media, input.receivers);
    text += FlowRow("resends out", flows.resends, input.receivers);
    text += FlowRow("requests in", flows.requests, input.receivers);
    text += FlowRow("pings in", flows.pings, input.receivers);
    text += FlowRow("echoes in, out", flows.echoes, input.receivers);
    return text;
}

std::string LimitsText(const CalcResult& result)
{
    std::string text = "\n";
    for (const CalcLimit& limit : result.limits) {
        text
            += fmt::format("{:<14} {:<8}  {}\n", limit.name, limit.isHeld ? "holds" : "exceeded", limit.text);
        if (!limit.isHeld)
            text += Row("", limit.advice);
    }
    return text;
}

Json FlowJson(const CalcFlow& flow, int64_t receivers)
{
    const auto count = static_cast<double>(receivers);
    return { { "packet_rate", flow.packetRate * count }, { "bit_rate", flow.bitRate * count } };
}

Json FlowsJson(const CalcFlows& flows, int64_t receivers)
{
    return { { "media_out", FlowJson(flows.media, receivers) },
        { "resends_out", FlowJson(flows.resends, receivers) },
        { "requests_in", FlowJson(flows.requests, receivers) },
        { "pings_in", FlowJson(flows.pings, receivers) },
        { "echoes_in", FlowJson(flows.echoes, receivers) } };
}

Json LimitsJson(const std::vector<CalcLimit>& limits)
{
    Json list = Json::array();
    for (const CalcLimit& limit : limits) {
        Json one { { "name", limit.name }, { "holds", limit.isHeld }, { "text", limit.text } };
        if (!limit.isHeld)
            one["advice"] = limit.advice;
        list.push_back(std::move(one));
    }
    return list;
}

double Milliseconds(int64_t us)
{
    return static_cast<double>(us) / 1e3;
}

Json GivenJson(const CalcInput& input)
{
    Json object { { "rate", input.bitRate }, { "payload_bytes", input.payloadBytes },
        { "loss", input.lossDown }, { "loss_back", input.lossUp },
        { "round_trip_ms", Milliseconds(input.roundTripUs) }, { "receivers", input.receivers },
        { "hold_off_ms", Milliseconds(input.holdOffUs) } };
    if (input.outageUs > 0)
        object["burst_ms"] = Milliseconds(input.outageUs);
    if (input.latencyUs == 0)
        object["target_loss"] = input.targetLoss;
    return object;
}

void AddRepair(Json& object, const CalcInput& input, const CalcResult& result)
{
    object["packet_rate"] = result.packetRate;
    object["latency_ms"] = Milliseconds(result.latencyUs);
    object["tries"] = result.random.tries;
    object["try_fails"] = result.tryFails;
    object["residual_loss"] = result.random.left;
    if (LostRate(result) > 0)
        object["seconds_per_lost_packet"] = 1 / LostRate(result);
    object["numbers_asked_share"] = result.random.asked;
    if (input.outageUs > 0)
        object["burst"] = { { "packets", result.outagePackets }, { "tries", result.outage.tries },
            { "residual_loss", result.outage.left }, { "lost", result.outage.left * result.outagePackets } };
}

} // namespace

std::string ProxyCommand(const CalcResult& result)
{
    return fmt::format("tx_proxy -q {} -G {} 5000", result.ringPackets, result.grossBitRate);
}

std::string ReceiverCommand(const CalcInput& input, const CalcResult& result)
{
    const bool isUsual = input.holdOffUs == CalcInput().holdOffUs;
    return fmt::format("arqrx PROXY --latency {} --ring {} --proxy-bit-rate {}{}",
        common::DurationText(result.latencyUs), result.ringPackets, result.grossBitRate,
        isUsual ? "" : " --hold-off " + common::DurationText(input.holdOffUs));
}

std::string CalcText(const CalcInput& input, const CalcResult& result)
{
    return LineText(input, result) + "\n" + RepairText(input, result) + FlowsText(input, result)
        + LimitsText(result)
        + fmt::format("\n{}\n{}\n", ProxyCommand(result), ReceiverCommand(input, result));
}

std::string CalcJson(const CalcInput& input, const CalcResult& result)
{
    Json object = GivenJson(input);
    AddRepair(object, input, result);
    object["ring_packets"] = result.ringPackets;
    object["ring_needed"] = result.ringNeeded;
    object["gross_bit_rate"] = result.grossBitRate;
    object["window_ms"] = result.windowMs;
    object["budget_bytes"] = result.budgetBytes;
    object["request_numbers"] = result.requestNumbers;
    object["ports"] = FlowsJson(result.flows, input.receivers);
    object["holds"] = result.IsHeld();
    object["limits"] = LimitsJson(result.limits);
    object["tx_proxy"] = ProxyCommand(result);
    object["arqrx"] = ReceiverCommand(input, result);
    return object.dump() + "\n";
}

} // namespace arqctl
