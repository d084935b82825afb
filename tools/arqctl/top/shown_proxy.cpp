#include "arqctl/top/shown_proxy.h"

#include "arqctl/proxy/ask.h"
#include "arqctl/top/amount_text.h"
#include "common/clock.h"

namespace arqctl::top {

namespace {

constexpr int64_t WITHHOLDING_S = 10; // as long ago a withheld packet still tells

std::string DownWord(Failure failure)
{
    if (failure == Failure::NoSocket || failure == Failure::NotListening)
        return "NO PROXY";
    return failure == Failure::NotAllowed ? "NO RIGHT" : "NO ANSWER";
}

} // namespace

ProxyState StateOf(const ShownProxy& proxy)
{
    const Reading& reading = proxy.reading;
    if (!proxy.trouble.empty())
        return ProxyState::Down;
    if (!reading.isUp)
        return proxy.failure == Failure::None ? ProxyState::Asked : ProxyState::Down;
    if (!reading.hasHadInput && reading.statistics.receivedPackets == 0)
        return ProxyState::Waiting;
    return reading.isInputGone ? ProxyState::InputGone : ProxyState::Good;
}

Tone ToneOf(ProxyState state)
{
    switch (state) {
    case ProxyState::Good:
        return Tone::Good;
    case ProxyState::Waiting:
        return Tone::Warn;
    case ProxyState::InputGone:
    case ProxyState::Down:
        return Tone::Bad;
    case ProxyState::Asked:
        return Tone::Faint;
    }
    return Tone::Plain;
}

std::string StateWord(const ShownProxy& proxy)
{
    switch (StateOf(proxy)) {
    case ProxyState::Asked:
        return "asking";
    case ProxyState::Good:
        return "good";
    case ProxyState::Waiting:
        return "waiting";
    case ProxyState::InputGone:
        return "INPUT GONE";
    case ProxyState::Down:
        return proxy.trouble.empty() ? DownWord(proxy.failure) : "NO WAY";
    }
    return "";
}

std::string StateSentence(const ShownProxy& proxy, int64_t nowUs)
{
    std::string word = StateWord(proxy);
    switch (StateOf(proxy)) {
    case ProxyState::Asked:
        return "waiting for its first answer";
    case ProxyState::Good:
        return word;
    case ProxyState::Waiting:
        return word + " for its input: it has had none yet";
    case ProxyState::InputGone:
        return word + " for " + AgeText(nowUs - proxy.reading.inputChangedUs);
    case ProxyState::Down:
        return word + ": " + (proxy.trouble.empty() ? ProblemText(proxy.failure, proxy.path) : proxy.trouble);
    }
    return "";
}

bool IsWithholding(const ShownProxy& proxy, int64_t nowUs)
{
    const int64_t second = nowUs / common::US_PER_SECOND;
    const auto most = proxy.history == nullptr
        ? std::nullopt
        : proxy.history->Over(PlotSeries::Withheld, second - WITHHOLDING_S + 1, WITHHOLDING_S);
    return most && *most > 0;
}

} // namespace arqctl::top
