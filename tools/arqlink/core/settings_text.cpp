#include "arqlink/core/settings_text.h"

#include "common/quantity.h"

#include <array>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <system_error>
#include <utility>

namespace arqlink {

namespace {

constexpr int64_t LONGEST_DELAY_US = 3600LL * 1'000'000;
constexpr size_t MOST_RANGES = 4096;
constexpr std::string_view RATIO = "a ratio such as 5% or 0.05";
constexpr std::string_view DURATION = "a duration such as 20ms, at most 1h";

// Reads a value into the settings. A new name needs one of these and a line in SETTINGS.
using Reader = bool (*)(Settings& settings, std::string_view value);

struct Setting {
    SettingName name;
    std::string_view expected; // "'x' is not ..."
    Reader read;
};

bool IsOff(std::string_view value)
{
    return value == "off" || value == "0";
}

bool ReadRatio(std::string_view value, double& ratio)
{
    return common::ParseRatio(value == "off" ? "0" : value, ratio);
}

bool ReadDuration(std::string_view value, int64_t& durationUs)
{
    int64_t read = 0;
    if (!common::ParseDuration(value == "off" ? "0" : value, read) || read > LONGEST_DELAY_US)
        return false;
    durationUs = read;
    return true;
}

// The text before the next comma; what is left follows it.
std::string_view TakePart(std::string_view& text)
{
    const size_t comma = text.find(',');
    const std::string_view part = text.substr(0, comma);
    text = comma == std::string_view::npos ? std::string_view() : text.substr(comma + 1);
    return part;
}

bool ReadBurst(std::string_view value, Burst& burst)
{
    if (IsOff(value)) {
        burst = {};
        return true;
    }
    Burst read;
    double* const parts[] = { &read.enter, &read.leave, &read.lossBad, &read.lossGood };
    size_t count = 0;
    bool bMore = true;
    while (bMore) {
        bMore = value.find(',') != std::string_view::npos;
        if (count == std::size(parts) || !ReadRatio(TakePart(value), *parts[count++]))
            return false;
    }
    if (count < 2)
        return false;
    burst = read;
    return true;
}

template <typename Number>
bool ReadNumber(std::string_view text, Number& number)
{
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && stop == end;
}

// "100", "100-110", "65534-1", each with "x3" behind it for the first three times.
bool ReadRange(std::string_view text, SequenceRange& range)
{
    const size_t times = text.find('x');
    if (times != std::string_view::npos
        && (!ReadNumber(text.substr(times + 1), range.times) || range.times == 0))
        return false;
    text = text.substr(0, times);
    const size_t dash = text.find('-');
    if (!ReadNumber(text.substr(0, dash), range.first))
        return false;
    range.last = range.first;
    return dash == std::string_view::npos || ReadNumber(text.substr(dash + 1), range.last);
}

bool ReadRanges(std::string_view value, std::vector<SequenceRange>& ranges)
{
    std::vector<SequenceRange> read;
    bool bMore = value != "off"; // 0 is a sequence number
    while (bMore) {
        bMore = value.find(',') != std::string_view::npos;
        SequenceRange range;
        if (read.size() == MOST_RANGES || !ReadRange(TakePart(value), range))
            return false;
        read.push_back(range);
    }
    ranges = std::move(read);
    return true;
}

bool ReadRate(std::string_view value, int64_t& rateBits)
{
    return common::ParseBitRate(value == "off" ? "0" : value, rateBits);
}

// A time or a size; the one replaces the other.
bool ReadQueue(std::string_view value, Settings& settings)
{
    int64_t sizeBytes = 0;
    if (value != "0" && ReadDuration(value, settings.queueUs)) {
        settings.queueBytes = 0;
        return value != "off";
    }
    if (!common::ParseSize(value, sizeBytes) || sizeBytes == 0)
        return false;
    settings.queueBytes = sizeBytes;
    return true;
}

bool ReadSwitch(std::string_view value, bool& on)
{
    if (value != "on" && !IsOff(value))
        return false;
    on = value == "on";
    return true;
}

constexpr Setting SETTINGS[] = {
    { { "loss", "RATIO", "Lose this part of the packets, each by itself" }, RATIO,
        [](Settings& s, std::string_view v) { return ReadRatio(v, s.loss); } },
    { { "burst", "ENTER,LEAVE[,BAD[,GOOD]]",
          "Lose packets in bursts: the chance of each packet to begin one, to end one, and to be lost within one (100%) "
          "and between them (0)" },
        "two to four ratios such as 1%,25% (begin, end, loss within, loss between)",
        [](Settings& s, std::string_view v) { return ReadBurst(v, s.burst); } },
    { { "drop-seq", "LIST",
          "Lose these RTP sequence numbers, the first time each comes, or the first K times: "
          "7,100-120,65530-5x3" },
        "a list of sequence numbers such as 7,100-120,65530-5x3",
        [](Settings& s, std::string_view v) { return ReadRanges(v, s.dropped); } },
    { { "delay", "TIME", "Hold every packet this long" }, DURATION,
        [](Settings& s, std::string_view v) { return ReadDuration(v, s.delayUs); } },
    { { "jitter", "TIME", "Hold each packet up to this much longer; they keep their order" }, DURATION,
        [](Settings& s, std::string_view v) { return ReadDuration(v, s.jitterUs); } },
    { { "reorder", "RATIO",
          "Let this part of the packets leave at their own time, so that the jitter changes their order" },
        RATIO, [](Settings& s, std::string_view v) { return ReadRatio(v, s.reorder); } },
    { { "duplicate", "RATIO", "Deliver this part of the packets twice" }, RATIO,
        [](Settings& s, std::string_view v) { return ReadRatio(v, s.duplicate); } },
    { { "corrupt", "RATIO", "Change one to four bytes in this part of the packets" }, RATIO,
        [](Settings& s, std::string_view v) { return ReadRatio(v, s.corrupt); } },
    { { "rate", "BITRATE", "Carry no more than this; what comes faster waits in the queue" },
        "a bit rate such as 8M or 64k",
        [](Settings& s, std::string_view v) { return ReadRate(v, s.rateBits); } },
    { { "queue", "TIME|SIZE", "How long or how much may wait when there is a rate (100ms); more is lost" },
        "a time such as 50ms, at most 1h, or a size such as 64k",
        [](Settings& s, std::string_view v) { return ReadQueue(v, s); } },
    { { "blackout", "on|off", "Lose everything" }, "on or off",
        [](Settings& s, std::string_view v) { return ReadSwitch(v, s.blackout); } },
};

using Names = std::array<SettingName, std::size(SETTINGS)>;

constexpr Names NamesOf()
{
    Names names {};
    for (size_t i = 0; i < names.size(); i++)
        names[i] = SETTINGS[i].name;
    return names;
}

constexpr Names NAMES = NamesOf();

// Without an exponent, which nobody may write. Ten digits: what the multiplication adds stands behind them.
std::string RatioText(double ratio)
{
    char digits[32];
    (void)std::snprintf(digits, sizeof(digits), "%.10g", ratio * 100);
    char text[400]; // the smallest number has 324 places
    const auto result
        = std::to_chars(text, text + sizeof(text), std::strtod(digits, nullptr), std::chars_format::fixed);
    return std::string(text, result.ptr) + "%";
}

std::string BurstText(const Burst& burst)
{
    return RatioText(burst.enter) + "," + RatioText(burst.leave) + "," + RatioText(burst.lossBad) + ","
        + RatioText(burst.lossGood);
}

std::string RangesText(const std::vector<SequenceRange>& ranges)
{
    std::string text;
    for (const SequenceRange& range : ranges) {
        text += (text.empty() ? "" : ",") + std::to_string(range.first);
        if (range.last != range.first)
            text += "-" + std::to_string(range.last);
        if (range.times != 1)
            text += "x" + std::to_string(range.times);
    }
    return text;
}

void Append(std::string& text, std::string_view name, const std::string& value)
{
    text += (text.empty() ? "" : " ") + std::string(name) + " " + value;
}

void AppendRatio(std::string& text, std::string_view name, double ratio)
{
    if (ratio > 0)
        Append(text, name, RatioText(ratio));
}

void AppendLosses(std::string& text, const Settings& settings)
{
    if (settings.blackout)
        Append(text, "blackout", "on");
    AppendRatio(text, "loss", settings.loss);
    if (settings.burst.IsOn())
        Append(text, "burst", BurstText(settings.burst));
    if (!settings.dropped.empty())
        Append(text, "drop-seq", RangesText(settings.dropped));
}

void AppendTimes(std::string& text, const Settings& settings)
{
    if (settings.delayUs > 0)
        Append(text, "delay", common::DurationText(settings.delayUs));
    if (settings.jitterUs > 0)
        Append(text, "jitter", common::DurationText(settings.jitterUs));
    AppendRatio(text, "reorder", settings.reorder);
}

void AppendRate(std::string& text, const Settings& settings)
{
    if (settings.rateBits == 0)
        return; // the queue is not used
    Append(text, "rate", std::to_string(settings.rateBits));
    Append(text, "queue",
        settings.queueBytes > 0 ? std::to_string(settings.queueBytes)
                                : common::DurationText(settings.queueUs));
}

} // namespace

std::span<const SettingName> SettingNames()
{
    return NAMES;
}

bool ApplySetting(Settings& settings, std::string_view name, std::string_view value, std::string& problem)
{
    for (const Setting& setting : SETTINGS) {
        if (setting.name.name != name)
            continue;
        Settings changed = settings;
        if (setting.read(changed, value)) {
            settings = std::move(changed);
            return true;
        }
        problem = std::string(name) + " '" + std::string(value) + "' is not " + std::string(setting.expected);
        return false;
    }
    problem = "there is no setting '" + std::string(name) + "'";
    return false;
}

void MakeClean(Settings& settings)
{
    const Settings clean;
    settings.blackout = clean.blackout;
    settings.loss = clean.loss;
    settings.burst = clean.burst;
    settings.dropped = clean.dropped;
    settings.duplicate = clean.duplicate;
    settings.corrupt = clean.corrupt;
}

std::string SettingsText(const Settings& settings)
{
    std::string text;
    AppendLosses(text, settings);
    AppendTimes(text, settings);
    AppendRatio(text, "duplicate", settings.duplicate);
    AppendRatio(text, "corrupt", settings.corrupt);
    AppendRate(text, settings);
    return text.empty() ? "clean" : text;
}

} // namespace arqlink
