#include "arqrx/cli/server_report.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "arqrx/cli/json_values.h"
#include "arqrx/core/request_window.h"
#include "arqrx/program/fields.h"

namespace arqrx {

namespace {

constexpr int VERSION = 1; // of what a report has
constexpr size_t LONGEST_STREAM = 100; // bytes

constexpr std::array<std::string_view, 9> REPORTED_COUNTS { "packets_received", "packets_resent",
    "packets_missing", "packets_recovered", "packets_lost", "packets_duplicate", "packets_late", "requests",
    "numbers_asked" };
constexpr std::array<std::string_view, 3> REPORTED_TIMES { "buffer", "round_trip", "jitter" };

template <typename List>
bool Has(const List& list, std::string_view name)
{
    return std::find(list.begin(), list.end(), name) != list.end();
}

// Of the packets that came between the two, or of all if none did.
double MeanBytes(const Sample& before, const Sample& now)
{
    const Figures from = now.core.received > before.core.received ? before.core : Figures {};
    return static_cast<double>(now.core.receivedBytes - from.receivedBytes)
        / static_cast<double>(now.core.received - from.received);
}

std::string Text(nlohmann::ordered_json& object)
{
    const auto dump
        = [&] { return object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace); };
    std::string text = dump();
    for (const char* spared : { "stream", "proxy" }) {
        if (text.size() <= LONGEST_SERVER_REPORT)
            break;
        object.erase(spared);
        text = dump();
    }
    return text;
}

} // namespace

ServerReport::ServerReport(const std::string& stream, const Options& options)
    : m_stream(stream.substr(0, LONGEST_STREAM)),
      m_server(options.report),
      m_name(options.reportName.empty() ? HostName() : options.reportName),
      m_nLatencyUs(options.settings.latencyUs),
      m_nWindowMs(ChooseWindow(options.settings).BudgetMs())
{
}

nlohmann::ordered_json ServerReport::Object(const Sample& now)
{
    const Figures& core = now.core;
    nlohmann::ordered_json object { { "arqrx", VERSION }, { "name", m_name } };
    if (!m_server.channel.empty())
        object["channel"] = m_server.channel;
    object["run_s"] = Seconds(now.runUs);
    object["stream"] = m_stream;
    if (!now.proxy.empty())
        object["proxy"] = now.proxy;
    if (now.sinceMediaUs >= 0)
        object["silent_s"] = Seconds(now.sinceMediaUs);
    for (const CountField& field : COUNT_FIELDS) {
        if (Has(REPORTED_COUNTS, field.name))
            object[field.name] = core.*field.count;
    }
    object["packets_waiting"] = core.waiting;
    object["most_asked"] = core.mostAsked;
    object["window_ms"] = m_nWindowMs;
    object["latency_ms"] = Thousandth(m_nLatencyUs);
    for (const TimeField& field : TIME_FIELDS) {
        if (Has(REPORTED_TIMES, field.name))
            AddKnownMs(object, field.name, core.*field.timeUs);
    }
    if (core.received > 0)
        object["packet_bytes"] = std::round(MeanBytes(m_before, now));
    return object;
}

std::string ServerReport::Interval(const Sample& now, int64_t)
{
    nlohmann::ordered_json object = Object(now);
    const int64_t us = now.runUs - m_before.runUs;
    if (us > 0)
        object["bit_rate"] = BitRateOf(now.core.receivedBytes - m_before.core.receivedBytes, us);
    m_before = now;
    return Text(object);
}

std::string ServerReport::Last(const Sample& last, const RunEnd&, int64_t)
{
    nlohmann::ordered_json object = Object(last);
    object["final"] = true;
    return Text(object);
}

} // namespace arqrx
