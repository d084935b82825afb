#pragma once

#include <cstdint>
#include <string>

#include "arqctl/proxy/exchange.h"

namespace arqctl {

// The reply of a proxy, or why there is none.
struct Answer {
    Failure failure = Failure::NoAnswer;
    std::string reply;
    int peerPid = 0; // of the proxy, where it runs here

    bool IsThere() const { return failure == Failure::None; }
};

// How long a proxy may take: it looks at its socket every half second, and serves whoever came before.
constexpr int64_t USUAL_PATIENCE_US = 5'000'000;

// Sends one request to the control socket at `path` and waits for the reply, `patienceUs` at most.
Answer Ask(const std::string& path, const std::string& request, int64_t patienceUs);

// What a failure means and what to do next, as one sentence each: "nothing listens on /dev/arq_tx_ctrl1" and "start the
// proxy ...". `None` has no text.
std::string ProblemText(Failure failure, const std::string& path);
std::string AdviceText(Failure failure, const std::string& path);

} // namespace arqctl
