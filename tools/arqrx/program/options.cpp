#include "arqrx/program/options.h"

#include <algorithm>
#include <charconv>
#include <random>

namespace arqrx {

namespace {

constexpr int64_t LONGEST_PING_INTERVAL_US = 4'900'000; // longer, and the proxy takes us for gone
constexpr int64_t SHORTEST_LATENCY_US = 10 * common::US_PER_MS;
constexpr int64_t LONGEST_LATENCY_US = 60 * common::US_PER_SECOND;
constexpr int64_t SHORTEST_SILENCE_US = 500 * common::US_PER_MS;
constexpr int64_t SHORTEST_INTERVAL_US = 100 * common::US_PER_MS;

// Who sends to us, and who is spoken to.
std::string SourceContradiction(const Options& options)
{
    const bool hasProxy = !options.proxyHost.empty();
    if (!hasProxy && !options.listen && !options.group)
        return "say where the stream comes from: PROXY[:PING_PORT], --group or --listen";
    if (options.listen && options.group)
        return "--listen and --group are two sources; start one receiver for each";
    if (options.listen && options.bind)
        return "--listen says already where to bind; leave --bind out";
    if (options.listen && options.listen->IsMulticast())
        return "--listen takes an address of this machine; for a multicast group use --group";
    if (options.group && !options.group->IsMulticast())
        return "--group takes an address from 224.0.0.0 to 239.255.255.255; for others use --listen";
    if (!options.networkInterface.empty() && !options.group)
        return "--interface is the one on which --group is joined; without a group use --bind ADDRESS";
    return "";
}

std::string RangeContradiction(const Options& options)
{
    const Settings& settings = options.settings;
    if (settings.latencyUs < SHORTEST_LATENCY_US || settings.latencyUs > LONGEST_LATENCY_US)
        return "--latency goes from 10ms to 60s";
    if (settings.pingIntervalUs < SHORTEST_INTERVAL_US || settings.pingIntervalUs > LONGEST_PING_INTERVAL_US)
        return "--ping-interval goes from 100ms to 4.9s: the proxy drops who is silent for 5s";
    if (settings.silenceUs < SHORTEST_SILENCE_US)
        return "--rejoin-after is at least 500ms";
    if (options.intervalUs < SHORTEST_INTERVAL_US)
        return "--interval is at least 100ms";
    return "";
}

std::string OutputContradiction(const Options& options)
{
    const auto isStandardOutput
        = [](const OutputAddress& output) { return output.kind == OutputKind::StandardOutput; };
    if (std::count_if(options.outputs.begin(), options.outputs.end(), isStandardOutput) > 1)
        return "standard output can be one output only";
    for (const OutputAddress& output : options.outputs) {
        if (std::count_if(options.outputs.begin(), options.outputs.end(),
                [&](const OutputAddress& other) { return other.text == output.text; })
            > 1)
            return "'" + output.text + "' is an output twice";
    }
    if (!options.passwordFile.empty() && options.decryptionLibrary.empty())
        return "--password-file goes with --decrypt LIBRARY";
    if (options.isStripping && options.isKeepingRtp)
        return "--strip-rtp and --keep-rtp contradict each other; name rtp:// outputs where RTP is wanted";
    return "";
}

std::string ReportContradiction(const Options& options)
{
    if (!options.reportName.empty() && options.report.host.empty())
        return "--report-name goes with --report HOST:PORT";
    return "";
}

} // namespace

bool Options::WritesToStandardOutput() const
{
    return std::any_of(outputs.begin(), outputs.end(),
        [](const OutputAddress& output) { return output.kind == OutputKind::StandardOutput; });
}

std::string Contradiction(const Options& options)
{
    for (const auto find :
        { SourceContradiction, RangeContradiction, OutputContradiction, ReportContradiction }) {
        std::string found = find(options);
        if (!found.empty())
            return found;
    }
    return "";
}

bool ParseStreamId(const std::string& text, uint32_t& id)
{
    if (text == "none") {
        id = 0;
        return true;
    }
    const bool isHex = text.starts_with("0x") || text.starts_with("0X");
    const char* const begin = text.data() + (isHex ? 2 : 0);
    const char* const end = text.data() + text.size();
    uint32_t value = 0;
    const auto [last, error] = std::from_chars(begin, end, value, isHex ? 16 : 10);
    if (error != std::errc {} || last != end || value == 0)
        return false;
    id = value;
    return true;
}

uint32_t RandomStreamId()
{
    std::random_device device;
    return std::max(1U, static_cast<uint32_t>(device()));
}

bool ParseHost(const std::string& text, std::string& host, uint16_t& port)
{
    const size_t colon = text.rfind(':');
    const std::string name = text.substr(0, colon);
    uint16_t found = port;
    if (colon != std::string::npos && (!common::ParsePort(text.substr(colon + 1), found) || found == 0))
        return false;
    if (name.empty() || name.find_first_of(" /:") != std::string::npos)
        return false;
    host = name;
    port = found;
    return true;
}

} // namespace arqrx
