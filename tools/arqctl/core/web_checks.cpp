#include "arqctl/core/web_checks.h"

#include <algorithm>

namespace arqctl {

namespace {

constexpr size_t SHORTEST_TOKEN = 16;
constexpr size_t LONGEST_TOKEN = 256;

// What a stranger sent, made fit for a sentence.
std::string Quoted(std::string_view text)
{
    constexpr size_t MOST = 80;
    std::string quoted = "'";
    for (const char letter : text.substr(0, MOST))
        quoted += letter > ' ' && letter < 0x7F ? letter : '?';
    return quoted + (text.size() > MOST ? "...'" : "'");
}

} // namespace

std::optional<Refusal> CheckHost(const HostList& hosts, const WebRequest& request)
{
    if (request.hosts.empty())
        return Refusal { 400, "the request has no Host field", "send one, as HTTP/1.1 demands" };
    for (const std::string& host : request.hosts) {
        if (host != request.hosts.front())
            return Refusal { 400, "the request names two hosts",
                "send one Host field, the same as in the address" };
    }
    const std::string& host = request.hosts.front();
    if (hosts.Allows(host))
        return {};
    return Refusal { 421, "this server is not known as " + Quoted(host),
        "use the address that it listens on, or start it with --allow-host NAME for another name" };
}

std::optional<Refusal> CheckOrigin(const HostList& hosts, const WebRequest& request)
{
    if (request.origin && !hosts.AllowsOrigin(*request.origin)) {
        return Refusal { 403, "the request comes from a page of " + Quoted(*request.origin),
            "control the channels from this server's own page, or with 'arqctl'" };
    }
    const std::string site = request.fetchSite.value_or("none");
    if (site == "same-origin" || site == "none")
        return {};
    return Refusal { 403, "the request comes from another site's page (Sec-Fetch-Site: " + Quoted(site) + ")",
        "control the channels from this server's own page, or with 'arqctl'" };
}

std::optional<Refusal> CheckToken(std::string_view token, const WebRequest& request)
{
    if (token.empty())
        return Refusal { 403, "this server only shows",
            "start it with --allow-control to change something through it" };
    if (!request.token) {
        return Refusal { 403, "the request has no token",
            "send the one of --token-file, or of the file named at the start, as X-Arqctl-Token" };
    }
    if (IsSameToken(token, *request.token))
        return {};
    return Refusal { 403, "the token is not the right one",
        "send the one of --token-file, or of the file named at the start, as X-Arqctl-Token" };
}

std::optional<Refusal> CheckContentType(const WebRequest& request)
{
    if (IsJsonType(request.contentType))
        return {};
    return Refusal { 415, "the body is not said to be JSON", "send it with Content-Type: application/json" };
}

bool IsSameToken(std::string_view token, std::string_view given)
{
    unsigned difference = token.size() == given.size() ? 0 : 1;
    for (size_t at = 0; at < given.size(); at++) {
        const char expected = token.empty() ? '\0' : token[at % token.size()];
        difference |= static_cast<unsigned char>(expected ^ given[at]);
    }
    return difference == 0 && !token.empty();
}

bool IsGoodToken(std::string_view token)
{
    return token.size() >= SHORTEST_TOKEN && token.size() <= LONGEST_TOKEN
        && std::all_of(token.begin(), token.end(), [](char letter) { return letter > ' ' && letter < 0x7F; });
}

bool IsJsonType(std::string_view contentType)
{
    constexpr std::string_view JSON = "application/json";
    const std::string_view type = contentType.substr(0, contentType.find_first_of("; \t"));
    return std::equal(type.begin(), type.end(), JSON.begin(), JSON.end(), [](char one, char other) {
        return (one >= 'A' && one <= 'Z' ? static_cast<char>(one - 'A' + 'a') : one) == other;
    });
}

} // namespace arqctl
