#include "common/quantity.h"

#include <cctype>
#include <charconv>
#include <cmath>
#include <span>
#include <system_error>

namespace common {

namespace {

struct Unit {
    std::string_view name; // in small letters
    double factor;
};

constexpr Unit DURATIONS[]
    = { { "us", 1 }, { "ms", 1e3 }, { "s", 1e6 }, { "min", 60e6 }, { "m", 60e6 }, { "h", 3600e6 } };
constexpr Unit THOUSANDS[] = { { "", 1 }, { "k", 1e3 }, { "m", 1e6 }, { "g", 1e9 } };
constexpr double LARGEST = 9e15; // exact in a double, and nothing of ours overflows when a few are added

std::string SmallLetters(std::string_view text)
{
    std::string small(text);
    for (char& letter : small)
        letter = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
    return small;
}

// Cuts a decimal number from the front of `text`, and one blank behind it.
bool TakeNumber(std::string_view& text, double& number)
{
    if (text.empty() || (text[0] != '.' && !std::isdigit(static_cast<unsigned char>(text[0]))))
        return false;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number, std::chars_format::fixed);
    if (error != std::errc() || !std::isfinite(number))
        return false;
    text.remove_prefix(static_cast<size_t>(stop - text.data()));
    if (text.size() > 1 && text[0] == ' ')
        text.remove_prefix(1);
    return true;
}

void DropSuffix(std::string& text, std::string_view suffix)
{
    if (text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0)
        text.resize(text.size() - suffix.size());
}

bool Scale(double number, const std::string& unit, std::span<const Unit> units, int64_t& result)
{
    for (const Unit& known : units) {
        if (known.name != unit)
            continue;
        const double value = std::round(number * known.factor);
        if (!(value <= LARGEST))
            return false;
        result = static_cast<int64_t>(value);
        return true;
    }
    return false;
}

// A number of bits or bytes. The suffixes are those that may stand behind the unit, from the text's end on.
bool ParseThousands(std::string_view text, std::span<const std::string_view> suffixes, int64_t& result)
{
    double number = 0;
    if (!TakeNumber(text, number))
        return false;
    std::string unit = SmallLetters(text);
    for (const std::string_view suffix : suffixes)
        DropSuffix(unit, suffix);
    return Scale(number, unit, THOUSANDS, result);
}

} // namespace

bool ParseDuration(std::string_view text, int64_t& durationUs)
{
    double number = 0;
    if (!TakeNumber(text, number))
        return false;
    if (number == 0 && text.empty()) {
        durationUs = 0;
        return true;
    }
    return Scale(number, SmallLetters(text), DURATIONS, durationUs);
}

bool ParseBitRate(std::string_view text, int64_t& bitsPerSecond)
{
    constexpr std::string_view SUFFIXES[] = { "/s", "bps", "bit" };
    return ParseThousands(text, SUFFIXES, bitsPerSecond);
}

bool ParseSize(std::string_view text, int64_t& sizeBytes)
{
    constexpr std::string_view SUFFIXES[] = { "b" };
    return ParseThousands(text, SUFFIXES, sizeBytes);
}

bool ParseRatio(std::string_view text, double& ratio)
{
    double number = 0;
    if (!TakeNumber(text, number))
        return false;
    if (text == "%")
        number /= 100;
    else if (!text.empty())
        return false;
    if (number > 1)
        return false;
    ratio = number;
    return true;
}

std::string DurationText(int64_t durationUs)
{
    if (durationUs % 1'000'000 == 0)
        return durationUs == 0 ? "0s" : std::to_string(durationUs / 1'000'000) + "s";
    if (durationUs % 1000 == 0)
        return std::to_string(durationUs / 1000) + "ms";
    return std::to_string(durationUs) + "us";
}

} // namespace common
