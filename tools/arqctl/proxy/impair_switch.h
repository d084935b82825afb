#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "arqctl/core/loss_settings.h"
#include "arqctl/proxy/impair_files.h"
#include "arqctl/proxy/loss_observer.h"
#include "arqctl/proxy/target.h"

namespace arqctl {

// Deliberate loss of a proxy, switched so that it is as it was asked for: the toggle file only flips, and the proxy does not
// say which way. So its counts are looked at first, the toggle is made only when the state has to change, and then they
// are looked at again. All of it takes some seconds: a loop that serves others calls this in a thread of its own.

struct ImpairOrder {
    bool isOn = false;
    std::optional<LossSettings> settings; // empty: those of the file as they are
    bool isBlind = false; // switch once even if the state cannot be known
    int64_t takePatienceUs = 5'000'000; // for the proxy to remove the toggle; it looks about once a second
    int64_t lockPatienceUs = 1'000'000; // for another arqctl
};

enum class ImpairResult {
    Done, // it was switched, and the counts say so
    AlreadySo, // nothing had to be done, and nothing was
    Refused, // nothing was done: the state cannot be known, or the settings are wrong
    Unconfirmed, // it was switched, and the counts cannot tell
    NotDone, // it was switched, or should have been, and the counts say otherwise
    NoAnswer, // the proxy does not answer: see `failure`
    Failed // files cannot be used
};

struct ImpairOutcome {
    ImpairResult result = ImpairResult::Failed;
    std::string text; // one sentence what is so, without an end
    std::string advice; // what to do; "" where there is nothing
    LossFinding finding; // of the last look
    Failure failure = Failure::None;
    LossSettings settings; // of the file now
};

// `look` tells where the proxy is and how long it may be looked at each time; its periodPackets is not used.
ImpairOutcome SwitchLoss(ImpairFiles& files, const LossLook& look, const ImpairOrder& order);

// Only looks. NoAnswer, or Done with a finding; the settings are those of the file, as far as it can be read.
ImpairOutcome FindLoss(ImpairFiles& files, const LossLook& look);

// The number of the proxy's files: of the target, or when that names a socket, of the process behind it or of the socket's
// usual name. Empty when that is not known.
std::optional<int> InstanceOf(const Target& target, int64_t patienceUs);

// Both for a proxy of this machine, files and instance found out; nothing throws.
ImpairOutcome SwitchLocalLoss(const Target& target, const ImpairOrder& order);
ImpairOutcome FindLocalLoss(const Target& target);

} // namespace arqctl
