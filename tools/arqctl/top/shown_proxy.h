#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "arqctl/core/meter.h"
#include "arqctl/proxy/exchange.h"
#include "arqctl/top/grid.h"
#include "arqctl/top/recent_history.h"

namespace arqctl::top {

// What the view knows of one proxy. The history lives as long as the drawing.
struct ShownProxy {
    std::string name; // Target::Name()
    std::string path; // of its control socket, for messages
    Reading reading;
    Failure failure = Failure::None; // of the last question; None before the first answer
    std::string
        trouble; // why there can be no answer yet, e.g. the way to its machine; "" when there is a way
    const RecentHistory* history = nullptr;
    std::string facts; // of its command line, "" when not known: "input 5000, media 10000, requests 7020"
    int mediaPort = 0; // 0: not known
};

enum class ProxyState : uint8_t { Asked, Good, Waiting, InputGone, Down };

// Waiting: it answers and has had no input since its start or last reset. Asked: the first answer is not there yet.
ProxyState StateOf(const ShownProxy& proxy);
Tone ToneOf(ProxyState state);
// "good", "waiting", "INPUT GONE", "NO ANSWER", "NO PROXY", "NO RIGHT", "asking": at most 10 letters.
std::string StateWord(const ShownProxy& proxy);
// The word and what is to be said of it: "INPUT GONE for 12 s", "NO PROXY: nobody listens on ...".
std::string StateSentence(const ShownProxy& proxy, int64_t nowUs);

// Packets were withheld in the last seconds: deliberate loss is on.
bool IsWithholding(const ShownProxy& proxy, int64_t nowUs);

} // namespace arqctl::top
