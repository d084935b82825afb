#include "demo/phases.h"

#include "demo/format.h"

namespace demo {

namespace {

constexpr int64_t BURST_US = 200'000;
constexpr int LOSS_PERCENT = 5;

const char* SettingOf(const Phase& phase)
{
    return phase.level == 0 ? "clean" : phase.level == 1 ? "loss 5%" : "blackout on";
}

} // namespace

std::vector<Phase> Phases(int64_t lengthUs)
{
    const int64_t lossy = lengthUs / 5, burst = lengthUs * 13 / 20;
    return {
        { 0, lossy, "clean", 0 },
        { lossy, burst, Format("%d %% random", LOSS_PERCENT), 1 },
        { burst, burst + BURST_US, "burst of 200 ms", 2 },
        { burst + BURST_US, lengthUs, "clean", 0 },
    };
}

std::string LineScript(const std::vector<Phase>& phases)
{
    std::string script = "0s both delay 20ms\n";
    for (const Phase& phase : phases)
        script += Format("%lldus both %s\n", static_cast<long long>(phase.startUs), SettingOf(phase));
    return script;
}

const Phase& PhaseAt(const std::vector<Phase>& phases, int64_t timeUs)
{
    for (const Phase& phase : phases)
        if (timeUs < phase.endUs)
            return phase;
    return phases.back();
}

} // namespace demo
