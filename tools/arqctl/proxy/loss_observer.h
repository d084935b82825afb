#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "arqctl/core/loss_watch.h"
#include "arqctl/proxy/ask.h"

namespace arqctl {

// How a proxy is looked at to find out whether it withholds packets.
struct LossLook {
    std::string socketPath; // on this machine: a tunnel's own end for a proxy elsewhere
    bool isRemote = false;
    uint64_t periodPackets = 0; // as in LossWatch
    int64_t answerPatienceUs = USUAL_PATIENCE_US;
    int64_t longestUs = 10'000'000; // how long it may look
    int turnMs = 1; // between two questions: what receivers fetch again sooner may be missed
    const std::atomic<bool>* stop = nullptr; // set: look no longer
};

struct ObservedLoss {
    Failure failure = Failure::None; // the proxy stopped answering; the finding is of what came before
    LossFinding finding;
};

// Asks the proxy again and again, some hundred times a second, until it is clear or the time is over. Where the proxy
// runs here, only answers count during which its threads slept. Behind a tunnel two equal answers in a row are all that
// shows that nothing is under way, and what is fetched again between them is not seen: "off" is less certain there.
ObservedLoss ObserveLoss(const LossLook& look);

} // namespace arqctl
