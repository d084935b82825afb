#include "arqctl/core/loss_settings.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>
#include <optional>
#include <utility>

namespace arqctl {

namespace {

using LossNumber = std::pair<std::string_view, int32_t LossSettings::*>;
constexpr std::array<LossNumber, 5> LOSS_NUMBERS { {
    { "mode", &LossSettings::mode },
    { "min_drop", &LossSettings::minDrop },
    { "max_drop", &LossSettings::maxDrop },
    { "min_dist", &LossSettings::minDist },
    { "max_dist", &LossSettings::maxDist },
} };

constexpr int32_t MOST_LOSS_PACKETS = 1'000'000;

bool IsBlank(char c)
{
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

bool IsLetter(char c)
{
    return std::isalpha(static_cast<unsigned char>(c)) != 0;
}

bool IsLetterOrDigit(char c)
{
    return std::isalnum(static_cast<unsigned char>(c)) != 0;
}

template <typename Predicate>
std::string_view From(std::string_view text, Predicate isWanted)
{
    text.remove_prefix(static_cast<size_t>(std::find_if(text.begin(), text.end(), isWanted) - text.begin()));
    return text;
}

std::string_view UpToBlank(std::string_view text)
{
    return text.substr(
        0, static_cast<size_t>(std::find_if(text.begin(), text.end(), IsBlank) - text.begin()));
}

struct LossLine {
    std::string_view key;
    std::string_view value;
};

// As the proxy cuts a line: nothing before a key's first letter counts, nor a value's sign, and a value in quotes has to
// follow at once. A line without a value is no setting.
std::optional<LossLine> CutLossLine(std::string_view line)
{
    line = From(line, [](char c) { return !IsBlank(c); });
    const size_t sign = line.find('=');
    if (line.starts_with('#') || sign == std::string_view::npos || sign + 1 == line.size())
        return std::nullopt;
    std::string_view value = line.substr(sign + 1);
    value = value.substr(0, value.find('='));
    value = value.starts_with('"') ? value.substr(1, value.find('"', 1) - 1)
                                   : UpToBlank(From(value, IsLetterOrDigit));
    return LossLine { UpToBlank(From(line.substr(0, sign), IsLetter)), value };
}

const LossNumber* FindLossNumber(std::string_view key)
{
    const auto* const found = std::find_if(LOSS_NUMBERS.begin(), LOSS_NUMBERS.end(),
        [key](const LossNumber& number) { return number.first == key; });
    return found == LOSS_NUMBERS.end() ? nullptr : found;
}

template <typename Visit>
void ForEachLine(std::string_view text, Visit visit)
{
    text = text.substr(0, text.find('\0'));
    while (!text.empty()) {
        const size_t end = text.find('\n');
        visit(text.substr(0, end));
        text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    }
}

} // namespace

LossSettings ReadLossSettings(std::string_view text)
{
    LossSettings settings;
    if (text.size() > LARGEST_LOSS_FILE)
        return settings;
    std::array<std::string_view, LOSS_NUMBERS.size()> values;
    ForEachLine(text, [&values](std::string_view line) {
        const auto setting = CutLossLine(line);
        const LossNumber* const number = setting ? FindLossNumber(setting->key) : nullptr;
        if (number != nullptr)
            values[static_cast<size_t>(number - LOSS_NUMBERS.data())] = setting->value;
    });
    for (size_t i = 0; i < values.size(); ++i)
        if (!values[i].empty())
            settings.*LOSS_NUMBERS[i].second
                = static_cast<int32_t>(strtol(std::string(values[i]).c_str(), nullptr, 10));
    return settings;
}

std::string WithLossSettings(std::string_view text, const LossSettings& settings)
{
    std::string result;
    ForEachLine(text, [&result](std::string_view line) {
        const auto setting = CutLossLine(line);
        if (!setting || FindLossNumber(setting->key) == nullptr)
            result.append(line).append("\n");
    });
    for (const auto& [key, number] : LOSS_NUMBERS)
        result.append(key).append("=").append(std::to_string(settings.*number)).append("\n");
    return result;
}

bool WithholdsAnything(const LossSettings& settings)
{
    return (settings.mode == 1 || settings.mode == 2) && settings.minDrop > 0;
}

std::string LossSettingsProblem(const LossSettings& settings)
{
    if (settings.mode != 1 && settings.mode != 2)
        return "mode is 1 (fixed gaps) or 2 (random gaps)";
    if (settings.minDrop < 1 || settings.minDrop > MOST_LOSS_PACKETS)
        return "1 to 1000000 packets are withheld in a row";
    if (settings.minDist < 1 || settings.minDist > MOST_LOSS_PACKETS)
        return "1 to 1000000 packets pass between two bursts";
    if (settings.mode == 2 && (settings.maxDist < settings.minDist || settings.maxDist > MOST_LOSS_PACKETS))
        return "the longest gap is no shorter than the shortest, and 1000000 packets at most";
    return "";
}

uint64_t LongestLossPeriod(const LossSettings& settings)
{
    const int64_t drop = std::max(settings.minDrop, 1);
    const int64_t gap = settings.mode == 2 ? int64_t { std::max(settings.minDist, settings.maxDist) } + 1
                                           : settings.minDist;
    return static_cast<uint64_t>(drop + std::max<int64_t>(gap, 1));
}

double LossShare(const LossSettings& settings)
{
    if (!WithholdsAnything(settings))
        return 0;
    const double gap = settings.mode == 2 ? (double { 1.0 } * settings.minDist + settings.maxDist) / 2 + 1
                                          : settings.minDist;
    return settings.minDrop / (settings.minDrop + std::max(gap, 1.0));
}

} // namespace arqctl
