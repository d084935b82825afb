#include <cinttypes>
#include <cmath>
#include <cstdarg>
#include <cstdio>

#include "arqctl/core/calc.h"

namespace arqctl {

namespace {

constexpr int64_t GOOD_RECEIVERS = 48; // an address that changes has two streams for some seconds
constexpr int64_t FARTHEST_BEHIND = 32'767; // numbers have 16 bits; more would be ahead of the newest
constexpr int64_t USUAL_MTU = 1'500;
constexpr int64_t RTP_UDP_IP_BYTES = 40;
constexpr int64_t RTP_HEADER = 12;
constexpr double SIGNED_FIGURES = 2147483648.0; // bit/s; printed with a sign from here on
constexpr double WRAPPED_FIGURES = 4294967296.0;

[[gnu::format(printf, 1, 2)]] std::string Text(const char* format, ...)
{
    char text[400];
    va_list arguments;
    va_start(arguments, format);
    (void)vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    return text;
}

CalcLimit Judge(const char* name, bool isHeld, std::string text, std::string advice)
{
    return { name, isHeld, std::move(text), isHeld ? std::string() : std::move(advice) };
}

CalcLimit Receivers(const CalcInput& input)
{
    const int64_t proxies = (input.receivers + GOOD_RECEIVERS - 1) / GOOD_RECEIVERS;
    return Judge("receivers", input.receivers <= MOST_RECEIVERS,
        Text("%" PRId64 " of the %" PRId64 " of a proxy", input.receivers, MOST_RECEIVERS),
        Text("take %" PRId64 " proxies of %" PRId64 " receivers, side by side or as a tree (docs/scale.md)",
            proxies, GOOD_RECEIVERS));
}

CalcLimit Latency(const CalcInput& input, const CalcResult& result)
{
    const auto latencyMs = static_cast<double>(result.latencyUs) / 1e3;
    if (input.latencyUs > 0)
        return Judge("latency", result.random.tries > 0,
            Text("%.0f ms have room for %d tries", latencyMs, result.random.tries),
            "a packet that is lost cannot come again in time: give it more than a round trip");
    return Judge("latency", result.isTargetReached,
        result.isTargetReached ? Text("%.0f ms of the 60000 ms that arqrx takes", latencyMs)
                               : Text("%.0f ms, the most of arqrx, are not enough", latencyMs),
        "allow more loss, or a shorter outage");
}

CalcLimit Outage(const CalcInput& input, const CalcResult& result)
{
    const double lost = result.outage.left * result.outagePackets;
    const double requests = std::ceil(result.outagePackets / static_cast<double>(result.requestNumbers));
    return Judge("outage", result.outage.tries > 0,
        Text("%.0f packets, asked for in %.0f request%s; %.2g of them are lost for good",
            result.outagePackets, requests, requests > 1 ? "s" : "", lost),
        Text("make the latency longer than outage and round trip together, %.0f ms",
            static_cast<double>(input.outageUs + input.roundTripUs) / 1e3));
}

CalcLimit Ring(const CalcResult& result)
{
    return Judge("ring", result.ringNeeded <= result.ringPackets,
        Text("%" PRId64 " packets are needed, -q %" PRId64 " of at most %" PRId64, result.ringNeeded,
            result.ringPackets, LARGEST_RING),
        "packets that the ring has lost cannot be sent again: less latency or larger packets");
}

CalcLimit Numbers(const CalcResult& result)
{
    const double waiting = result.packetRate * static_cast<double>(result.latencyUs) / 1e6;
    return Judge("numbers", waiting <= static_cast<double>(FARTHEST_BEHIND),
        Text("%.0f packets in the latency, of %" PRId64 " that 16-bit numbers tell apart", waiting,
            FARTHEST_BEHIND),
        "older packets cannot be asked for: less latency or larger packets");
}

CalcLimit Budget(const CalcInput& input, const CalcResult& result)
{
    const int64_t bytes = input.payloadBytes + RTP_HEADER;
    return Judge("budget", result.budgetBytes >= bytes,
        Text("%" PRId64 " bytes a request, %" PRId64 " packets; no -G gives more than 536870 bytes",
            result.budgetBytes, result.requestNumbers),
        "a request brings nothing: choose another latency");
}

CalcLimit Figures(const CalcInput& input, const CalcResult& result)
{
    const double sent = (result.packetRate + result.flows.resends.packetRate)
        * static_cast<double>((input.payloadBytes + RTP_HEADER) * 8 * input.receivers);
    const char* advice = sent < WRAPPED_FIGURES
        ? "SEND_BITRATE is printed below 0: add 4294967296, as arqctl stats does"
        : "SEND_BITRATE has wrapped and says nothing: take the rate from SEND_PACKETS, or more proxies";
    return Judge("figures", sent < SIGNED_FIGURES,
        Text("SEND_BITRATE is %.*f of the 2147 Mbit/s that its 32 bits hold", sent < 1e9 ? 1 : 0, sent / 1e6),
        advice);
}

CalcLimit Datagram(const CalcInput& input)
{
    const int64_t bytes = input.payloadBytes + RTP_UDP_IP_BYTES;
    return Judge("datagram", bytes <= USUAL_MTU,
        Text("%" PRId64 " bytes of an MTU of %" PRId64, bytes, USUAL_MTU),
        "datagrams leave in fragments, and a fragment lost is a packet lost: 1460 bytes of payload at most");
}

} // namespace

std::vector<CalcLimit> CalcLimits(const CalcInput& input, const CalcResult& result)
{
    std::vector<CalcLimit> limits { Receivers(input), Latency(input, result) };
    if (input.outageUs > 0)
        limits.push_back(Outage(input, result));
    limits.push_back(Ring(result));
    limits.push_back(Numbers(result));
    limits.push_back(Budget(input, result));
    limits.push_back(Figures(input, result));
    limits.push_back(Datagram(input));
    return limits;
}

} // namespace arqctl
