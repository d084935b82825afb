#include "arqctl/core/loss_texts.h"

#include <cstdio>

namespace arqctl {

namespace {

std::string Packets(uint64_t count)
{
    return std::to_string(count) + (count == 1 ? " packet" : " packets");
}

std::string DoubtText(const LossFinding& finding)
{
    switch (finding.doubt) {
    case LossDoubt::None:
        return "it was not looked at for long enough";
    case LossDoubt::NoReceiver:
        return "the proxy has no receiver";
    case LossDoubt::NoInput:
        return "there is no input";
    case LossDoubt::TooFew:
        return "only " + Packets(finding.packets)
            + " came, and the settings let more pass between two bursts";
    case LossDoubt::Busy:
        return "the proxy was never at rest between two packets";
    case LossDoubt::MayBeGroup:
        return "each packet is sent once, and whether to a group is not known from here";
    }
    return "";
}

} // namespace

std::string LossText(const LossFinding& finding)
{
    switch (finding.state) {
    case LossState::On:
        return "on: " + std::to_string(finding.withheld) + " of " + Packets(finding.packets)
            + " were withheld";
    case LossState::Off:
        return "off: none of " + Packets(finding.packets) + " was withheld";
    case LossState::Unknown:
        return "not known: " + DoubtText(finding);
    }
    return "";
}

std::string LossSettingsText(const LossSettings& settings)
{
    if (!WithholdsAnything(settings))
        return "nothing is withheld";
    const bool isRandom = settings.mode == 2;
    const int64_t least = int64_t { settings.minDist } + (isRandom ? 1 : 0);
    const std::string gap = isRandom ? std::to_string(least) + " to "
            + std::to_string(int64_t { settings.maxDist } + 1) + " pass at random"
                                     : std::to_string(least) + (least == 1 ? " passes" : " pass");
    char share[340];
    (void)snprintf(share, sizeof(share), " (%.2f %%)", 100 * LossShare(settings));
    return Packets(static_cast<uint64_t>(settings.minDrop)) + " withheld, " + gap + share;
}

std::string LossDoubtAdvice(LossDoubt doubt)
{
    switch (doubt) {
    case LossDoubt::None:
        return "";
    case LossDoubt::NoReceiver:
        return "add a receiver ('arqctl add ADDRESS'), or switch without knowing with --blind";
    case LossDoubt::NoInput:
        return "start the input, or switch without knowing with --blind";
    case LossDoubt::TooFew:
        return "look longer with --look, or switch without knowing with --blind";
    case LossDoubt::Busy:
        return "run arqctl on the proxy's own machine, or switch without knowing with --blind";
    case LossDoubt::MayBeGroup:
        return "run arqctl on the proxy's own machine, as its user";
    }
    return "";
}

} // namespace arqctl
