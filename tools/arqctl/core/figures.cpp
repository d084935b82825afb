#include "arqctl/core/figures.h"

#include <array>

#include "arqctl/core/amount_text.h"

namespace arqctl {

namespace {

using Value = std::optional<FigureValue>;

template <typename Number>
Value OfAnswer(const Sample& sample, Number Statistics::*number)
{
    return sample.now.isUp ? Value(uint64_t { sample.now.statistics.*number }) : std::nullopt;
}

bool HasInterval(const Sample& sample)
{
    return sample.now.isUp && sample.before;
}

Value Delta(const Sample& sample, uint64_t Totals::*total)
{
    return HasInterval(sample) ? Value(sample.now.totals.*total - (*sample.before).*total) : std::nullopt;
}

Value Rate(const Sample& sample, double Rates::*rate)
{
    return HasInterval(sample) ? Value(sample.now.rates.*rate) : std::nullopt;
}

double InSeconds(int64_t us)
{
    return static_cast<double>(us) / 1e6;
}

Value Interval(const Sample& sample)
{
    return HasInterval(sample) ? Value(InSeconds(sample.atUs - sample.beforeUs)) : std::nullopt;
}

// As far as this program has watched.
Value Silence(const Sample& sample)
{
    return sample.isWatched && sample.now.isUp ? Value(InSeconds(sample.atUs - sample.now.inputChangedUs))
                                               : std::nullopt;
}

Value InputGone(const Sample& sample)
{
    return sample.isWatched && sample.now.isUp ? Value(sample.now.isInputGone) : std::nullopt;
}

Value Events(const Sample& sample, uint64_t Totals::*events)
{
    return sample.isWatched ? Value(sample.now.totals.*events) : std::nullopt;
}

Value ReceiverCount(const Sample& sample)
{
    return sample.now.isUp ? Value(uint64_t { sample.now.statistics.receivers.size() }) : std::nullopt;
}

Value Receivers(const Sample& sample)
{
    return sample.now.isUp ? Value(sample.now.statistics.receivers) : std::nullopt;
}

using Of = const Sample&;
using enum FigureKind;

constexpr std::array FIGURES {
    Figure { "time", "", Seconds, [](Of s) { return Value(s.unixTime); } },
    Figure { "up", "", Plain, [](Of s) { return Value(s.now.isUp); } },
    Figure { "input_packets", "input packets", Plain,
        [](Of s) { return OfAnswer(s, &Statistics::receivedPackets); } },
    Figure { "input_bit_rate", "input bit rate", BitRate,
        [](Of s) { return OfAnswer(s, &Statistics::receivedBitRate); } },
    Figure { "input_lost", "input lost", Plain, [](Of s) { return OfAnswer(s, &Statistics::receivedLoss); } },
    Figure { "output_packets", "output packets", Plain,
        [](Of s) { return OfAnswer(s, &Statistics::sentPackets); } },
    Figure { "output_bit_rate", "output bit rate", BitRate,
        [](Of s) { return OfAnswer(s, &Statistics::sentBitRate); } },
    Figure { "receiver_count", "receivers", Plain, ReceiverCount },
    Figure { "receivers", "", Plain, Receivers },
    Figure { "interval_s", "", Seconds, Interval },
    Figure { "input_packets_delta", "", Plain, [](Of s) { return Delta(s, &Totals::received); } },
    Figure { "input_packet_rate", "", PerSecond, [](Of s) { return Rate(s, &Rates::inputPackets); } },
    Figure { "input_lost_delta", "", Plain, [](Of s) { return Delta(s, &Totals::lost); } },
    Figure { "input_loss_rate", "", PerSecond, [](Of s) { return Rate(s, &Rates::lost); } },
    Figure { "output_packets_delta", "", Plain, [](Of s) { return Delta(s, &Totals::sent); } },
    Figure { "output_packet_rate", "", PerSecond, [](Of s) { return Rate(s, &Rates::sent); } },
    Figure { "sent_beyond_delta", "", Plain, [](Of s) { return Delta(s, &Totals::sentBeyond); } },
    Figure { "sent_beyond_rate", "", PerSecond, [](Of s) { return Rate(s, &Rates::sentBeyond); } },
    Figure { "withheld_delta", "", Plain, [](Of s) { return Delta(s, &Totals::withheld); } },
    Figure { "withheld_rate", "", PerSecond, [](Of s) { return Rate(s, &Rates::withheld); } },
    Figure { "input_silent_s", "", Seconds, Silence },
    Figure { "input_gone", "", Plain, InputGone },
    Figure { "resets", "", Plain, [](Of s) { return Events(s, &Totals::resets); } },
    Figure { "restarts", "", Plain, [](Of s) { return Events(s, &Totals::restarts); } },
};

// Fails to compile where no figure has the key.
consteval const Figure& Keyed(std::string_view key)
{
    size_t i = 0;
    while (FIGURES[i].key != key)
        ++i;
    return FIGURES[i];
}

constexpr std::array COLUMNS {
    Column { Keyed("input_bit_rate"), "input", 11 },
    Column { Keyed("input_packet_rate"), "pkt/s", 8 },
    Column { Keyed("input_lost_delta"), "lost", 6 },
    Column { Keyed("output_bit_rate"), "output", 11 },
    Column { Keyed("output_packet_rate"), "pkt/s", 8 },
    Column { Keyed("sent_beyond_delta"), "beyond", 7 },
    Column { Keyed("withheld_delta"), "withheld", 8 },
    Column { Keyed("receiver_count"), "recv", 4 },
};

// To a thousandth, without the noughts that say nothing.
std::string RawNumber(double number)
{
    std::string text = Decimal(number, 3);
    text.erase(text.find_last_not_of('0') + 1);
    if (text.ends_with('.'))
        text.pop_back();
    return text;
}

std::string Join(const std::vector<std::string>& words)
{
    std::string text;
    for (const std::string& word : words)
        text += (text.empty() ? "" : " ") + word;
    return text;
}

double NumberOf(const FigureValue& value)
{
    if (const auto* whole = std::get_if<uint64_t>(&value))
        return static_cast<double>(*whole);
    const auto* number = std::get_if<double>(&value);
    return number != nullptr ? *number : 0;
}

} // namespace

std::span<const Figure> Figures()
{
    return FIGURES;
}

std::span<const Column> Columns()
{
    return COLUMNS;
}

std::string RawText(const FigureValue& value)
{
    if (const auto* flag = std::get_if<bool>(&value))
        return *flag ? "1" : "0";
    if (const auto* whole = std::get_if<uint64_t>(&value))
        return std::to_string(*whole);
    if (const auto* words = std::get_if<std::vector<std::string>>(&value))
        return Join(*words);
    return RawNumber(NumberOf(value));
}

std::string PeopleText(const Figure& figure, const FigureValue& value)
{
    switch (figure.kind) {
    case Plain:
        break;
    case PerSecond:
        return Decimal(NumberOf(value), 1);
    case BitRate:
        return BitRateText(NumberOf(value));
    case Seconds:
        return Decimal(NumberOf(value), 1) + " s";
    }
    return RawText(value);
}

} // namespace arqctl
