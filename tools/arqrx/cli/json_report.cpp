#include "arqrx/cli/json_report.h"

#include <ctime>
#include <nlohmann/json.hpp>
#include <utility>

#include "arqrx/cli/json_values.h"
#include "arqrx/program/fields.h"

namespace arqrx {

namespace {

using Json = nlohmann::ordered_json;

std::string Timestamp(int64_t wallSeconds)
{
    const time_t seconds = wallSeconds;
    tm utc {};
    (void)gmtime_r(&seconds, &utc);
    char text[32] {};
    (void)strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

Json OutputObject(const OutputFigures& output)
{
    Json object { { "name", output.name }, { "packets", output.packets }, { "dropped", output.dropped } };
    if (output.hasFailed)
        object["error"] = output.problem;
    return object;
}

Json Object(const Sample& sample, const std::string& stream, int64_t wallSeconds)
{
    const Figures& core = sample.core;
    Json object { { "time", Timestamp(wallSeconds) }, { "run_s", Seconds(sample.runUs) },
        { "stream", stream } };
    if (!sample.proxy.empty())
        object["proxy"] = sample.proxy;
    if (sample.sinceMediaUs >= 0)
        object["silent_s"] = Seconds(sample.sinceMediaUs);
    for (const CountField& field : COUNT_FIELDS)
        object[field.name] = core.*field.count;
    if (sample.decryption) {
        for (const DecryptionField& field : DECRYPTION_FIELDS)
            object[field.name] = (*sample.decryption).*field.count;
    }
    object["packets_waiting"] = core.waiting;
    object["packets_buffered"] = core.buffered;
    for (const TimeField& field : TIME_FIELDS)
        AddKnownMs(object, field.name, core.*field.timeUs);
    if (core.received > 0)
        object["drift_ppm"] = std::round(core.driftPpm * THOUSAND) / THOUSAND + 0.0; // never -0.0
    AddKnownMs(object, "play_late_p50", sample.playLateP50Us);
    AddKnownMs(object, "play_late_p99", sample.playLateP99Us);
    if (sample.transportPackets > 0) {
        object["transport_packets"] = sample.transportPackets;
        object["continuity_errors"] = sample.continuityErrors;
    }
    object["socket_drops"] = sample.socketDrops;
    object["send_failures"] = sample.sendFailures;
    for (const OutputFigures& output : sample.outputs)
        object["outputs"].push_back(OutputObject(output));
    return object;
}

std::string Line(const Json& object)
{
    // Names of files may hold any bytes; what is no text must not end the report.
    return object.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

} // namespace

JsonReport::JsonReport(std::string stream, bool isQuiet) : m_stream(std::move(stream)), m_bQuiet(isQuiet) {}

std::string JsonReport::Interval(const Sample& now, int64_t wallSeconds)
{
    const int64_t us = now.runUs - m_before.runUs;
    const uint64_t bytes = now.core.receivedBytes - m_before.core.receivedBytes;
    m_before = now;
    if (m_bQuiet)
        return "";
    Json object = Object(now, m_stream, wallSeconds);
    if (us > 0)
        object["bit_rate"] = BitRateOf(bytes, us);
    return Line(object);
}

std::string JsonReport::Last(const Sample& last, const RunEnd& end, int64_t wallSeconds)
{
    Json object = Object(last, m_stream, wallSeconds);
    object["final"] = true;
    object["reason"] = ReasonWord(end.reason);
    object["status"] = static_cast<int>(end.status);
    return Line(object);
}

std::string JsonError(const std::string& why, ExitStatus status)
{
    return Line(Json { { "error", why }, { "final", true }, { "status", static_cast<int>(status) } });
}

} // namespace arqrx
