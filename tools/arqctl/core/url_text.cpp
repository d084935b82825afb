#include "arqctl/core/url_text.h"

#include <algorithm>
#include <charconv>

namespace arqctl {

namespace {

constexpr size_t MOST_PARTS = 8;
constexpr size_t MOST_DIGITS = 9;

int HexDigit(char letter)
{
    if (letter >= '0' && letter <= '9')
        return letter - '0';
    if (letter >= 'a' && letter <= 'f')
        return letter - 'a' + 10;
    return letter >= 'A' && letter <= 'F' ? letter - 'A' + 10 : -1;
}

// The byte that "%XY" at the front stands for; -1 for none, and for the zero byte that would end a C text.
int EncodedByte(std::string_view text)
{
    if (text.size() < 3)
        return -1;
    const int high = HexDigit(text[1]);
    const int low = HexDigit(text[2]);
    const bool isByte = high >= 0 && low >= 0 && high + low > 0;
    return isByte ? high * 16 + low : -1;
}

std::optional<int> Number(std::string_view text)
{
    int value = 0;
    const char* const end = text.data() + text.size();
    if (text.empty() || text.size() > MOST_DIGITS || text.front() == '-')
        return {};
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    return error == std::errc {} && stop == end ? std::optional(value) : std::nullopt;
}

} // namespace

std::optional<std::string> PercentDecoded(std::string_view text)
{
    std::string decoded;
    for (size_t at = 0; at < text.size(); at++) {
        if (text[at] != '%') {
            decoded += text[at];
            continue;
        }
        const int byte = EncodedByte(text.substr(at));
        if (byte < 0)
            return {};
        decoded += static_cast<char>(byte);
        at += 2;
    }
    return decoded;
}

std::optional<std::vector<std::string>> PathParts(std::string_view path)
{
    std::vector<std::string> parts;
    while (path.starts_with('/') && parts.size() < MOST_PARTS) {
        path.remove_prefix(1);
        const size_t length = std::min(path.find('/'), path.size());
        const auto part = PercentDecoded(path.substr(0, length));
        if (!part)
            return {};
        parts.push_back(*part);
        path.remove_prefix(length);
    }
    if (parts.empty() || !path.empty())
        return {};
    return parts;
}

std::optional<int> QueryNumber(std::string_view query, std::string_view name, int otherwise)
{
    while (!query.empty()) {
        const size_t length = std::min(query.find('&'), query.size());
        const std::string_view pair = query.substr(0, length);
        if (pair.starts_with(name) && pair.substr(name.size()).starts_with('='))
            return Number(pair.substr(name.size() + 1));
        query.remove_prefix(std::min(length + 1, query.size()));
    }
    return otherwise;
}

} // namespace arqctl
