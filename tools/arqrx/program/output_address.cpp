#include "arqrx/program/output_address.h"

#include <algorithm>

namespace arqrx {

namespace {

constexpr std::string_view UDP_PREFIX = "udp://";
constexpr std::string_view RTP_PREFIX = "rtp://";
constexpr std::string_view FILE_PREFIX = "file:";
constexpr size_t LONGEST_TIME_TO_LIVE_DIGITS = 3;
constexpr int HIGHEST_TIME_TO_LIVE = 255;

bool Fail(std::string& problem, std::string_view text, const std::string& why)
{
    problem = "'" + std::string(text) + "': " + why;
    return false;
}

bool ParseTimeToLive(std::string_view text, int& timeToLive)
{
    const bool isNumber = !text.empty() && text.size() <= LONGEST_TIME_TO_LIVE_DIGITS
        && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
    const int value = isNumber ? std::stoi(std::string(text)) : 0;
    if (value < 1 || value > HIGHEST_TIME_TO_LIVE)
        return false;
    timeToLive = value;
    return true;
}

bool ParseSource(std::string_view text, common::Endpoint& source)
{
    return common::ParseEndpoint(text, source) || common::ParseAddress(text, source.address);
}

// One "name=value" behind the question mark; what is wrong with it, empty when it was taken.
std::string TakeSetting(std::string_view setting, OutputAddress& output)
{
    const size_t equals = setting.find('=');
    const std::string_view name = setting.substr(0, equals);
    const std::string_view value = equals == std::string_view::npos ? "" : setting.substr(equals + 1);
    if (name == "ttl")
        return ParseTimeToLive(value, output.timeToLive) ? "" : "ttl is a number from 1 to 255";
    if (name == "source")
        return ParseSource(value, output.source) ? ""
                                                 : "source is an address of this machine, or ADDRESS:PORT";
    if (name == "interface") {
        output.networkInterface = value;
        return value.empty() ? "interface is a name like eth0, or the interface's address" : "";
    }
    return "behind '?' stand ttl=, interface= and source=, with '&' between them";
}

bool TakeSettings(
    std::string_view text, std::string_view settings, OutputAddress& output, std::string& problem)
{
    while (!settings.empty()) {
        const size_t end = std::min(settings.find('&'), settings.size());
        const std::string why = TakeSetting(settings.substr(0, end), output);
        if (!why.empty())
            return Fail(problem, text, why);
        settings.remove_prefix(std::min(end + 1, settings.size()));
    }
    return true;
}

bool ParseDatagrams(std::string_view text, OutputAddress& output, std::string& problem)
{
    std::string_view rest = text.substr(UDP_PREFIX.size());
    const size_t question = std::min(rest.find('?'), rest.size());
    output.hostAndPort = rest.substr(0, question);
    const size_t colon = output.hostAndPort.rfind(':');
    uint16_t port = 0;
    const bool hasPort = colon != std::string::npos && colon > 0
        && common::ParsePort(std::string_view { output.hostAndPort }.substr(colon + 1), port) && port != 0;
    if (!hasPort)
        return Fail(problem, text, "write " + std::string(text.substr(0, UDP_PREFIX.size())) + "HOST:PORT");
    return TakeSettings(text, rest.substr(std::min(question + 1, rest.size())), output, problem);
}

bool ParseFile(std::string_view text, OutputAddress& output, std::string& problem)
{
    output.path = text.substr(FILE_PREFIX.size());
    if (output.path.starts_with("///")) // file:///var/x.ts is /var/x.ts (RFC 8089)
        output.path.erase(0, 2);
    return !output.path.empty() || Fail(problem, text, "write file:PATH");
}

} // namespace

bool ParseOutput(std::string_view text, OutputAddress& output, std::string& problem)
{
    output = {};
    output.text = text;
    if (text == "-") {
        output.kind = OutputKind::StandardOutput;
        return true;
    }
    if (text.starts_with(FILE_PREFIX)) {
        output.kind = OutputKind::File;
        return ParseFile(text, output, problem);
    }
    if (text.starts_with(UDP_PREFIX) || text.starts_with(RTP_PREFIX)) {
        output.kind = text.starts_with(UDP_PREFIX) ? OutputKind::Udp : OutputKind::Rtp;
        return ParseDatagrams(text, output, problem);
    }
    return Fail(
        problem, text, "an output is udp://HOST:PORT, rtp://HOST:PORT, file:PATH or - (standard output)");
}

} // namespace arqrx
