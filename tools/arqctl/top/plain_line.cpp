#include "arqctl/top/plain_line.h"

#include <fmt/format.h>

#include "arqctl/top/amount_text.h"

namespace arqctl::top {

namespace {

std::string AsciiOf(const std::string& text)
{
    std::string ascii;
    for (const char32_t letter : LettersOf(text))
        ascii += letter < 0x80 ? static_cast<char>(letter) : '?';
    return ascii;
}

} // namespace

std::string PlainLine(const ShownProxy& proxy, const std::string& clock, int64_t nowUs)
{
    const ProxyState state = StateOf(proxy);
    const std::string head = fmt::format("{}  {}  ", clock, AsciiOf(proxy.name));
    if (state == ProxyState::Down || state == ProxyState::Asked)
        return head + AsciiOf(StateSentence(proxy, nowUs));
    const std::string word = state == ProxyState::InputGone ? StateSentence(proxy, nowUs) : StateWord(proxy);
    const Reading& reading = proxy.reading;
    return head
        + fmt::format("{}  in {}  out {}  lost {}  resent {}  withheld {}  receivers {}", word,
            BitRateText(reading.statistics.receivedBitRate), BitRateText(reading.statistics.sentBitRate),
            PerSecondText(reading.rates.lost), PerSecondText(reading.rates.sentBeyond),
            PerSecondText(reading.rates.withheld), reading.statistics.receivers.size());
}

} // namespace arqctl::top
