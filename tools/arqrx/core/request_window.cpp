#include "arqrx/core/request_window.h"

#include <algorithm>

#include "arq/wire.h"

namespace arqrx {

namespace {

constexpr uint32_t LARGEST_WORD = 65'535;
constexpr uint32_t MOST_ADDED_MS = 100; // to reach a larger budget
constexpr uint32_t MARGIN_MS = 100; // at least: timers are late, clocks drift
constexpr uint32_t LONGEST_MS = 12 * 3600 * 1000 / 2; // ages are 90 kHz ticks in 32 signed bits

// A packet is at most the latency and its own way old when an answer is of use, and the way is part of the latency
// of any receiver that can recover at all; a quarter of it is more than that leaves time to recover.
uint32_t NeededMs(const Settings& settings)
{
    const auto latencyMs
        = static_cast<uint32_t>(std::clamp<int64_t>(settings.latencyUs / 1000 + 1, 1, LONGEST_MS / 2));
    return latencyMs + std::max(MARGIN_MS, latencyMs / 4);
}

uint32_t IntervalMs(const Settings& settings, uint32_t neededMs)
{
    const auto holdOffMs
        = static_cast<uint32_t>(std::clamp<int64_t>(settings.holdOffUs / 1000, 1, LARGEST_WORD));
    return std::clamp(holdOffMs, neededMs / (LARGEST_WORD / 2) + 1, std::max(neededMs / 2, 1U));
}

} // namespace

RequestWindow ChooseWindow(const Settings& settings)
{
    const uint32_t neededMs = NeededMs(settings);
    const uint32_t intervalMs = IntervalMs(settings, neededMs);
    const uint32_t retries = std::max(neededMs / intervalMs, 2U) - 1;
    const uint32_t coveredMs = (retries + 1) * intervalMs;
    RequestWindow best { static_cast<uint16_t>(retries), static_cast<uint16_t>(intervalMs), 0 };
    best.extraMs = static_cast<uint16_t>(neededMs > coveredMs ? neededMs - coveredMs : 0);
    RequestWindow tried = best;
    for (uint32_t added = 1; added <= MOST_ADDED_MS && tried.extraMs < LARGEST_WORD; ++added) {
        ++tried.extraMs;
        if (tried.BudgetBytes(settings.proxyBitRate) > best.BudgetBytes(settings.proxyBitRate))
            best = tried;
    }
    return best;
}

uint32_t MostNumbers(const Settings& settings, const RequestWindow& window, uint32_t packetBytes)
{
    constexpr uint32_t MOST = 763; // what the proxy reads of a datagram, less the header of a request
    const uint32_t room = settings.streamId == 0 ? MOST : MOST - STREAM_TAG_BYTES / 2;
    const uint32_t answered = window.BudgetBytes(settings.proxyBitRate) / std::max(packetBytes, 1U);
    // A budget that has no room for a single packet is no reason to ask for each alone: the bit rate may be another.
    return answered == 0 ? room : std::min(room, answered);
}

} // namespace arqrx
