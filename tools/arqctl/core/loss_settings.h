#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace arqctl {

// Settings of a proxy's deliberate loss, as it reads them from its settings file when that is switched on.
struct LossSettings {
    int32_t mode = 1; // 1 fixed gaps, 2 random ones; anything else withholds nothing
    int32_t minDrop = 1; // packets withheld in a row
    int32_t maxDrop = 10; // next to no effect: bursts are minDrop long
    int32_t minDist = 100; // packets that pass between two bursts
    int32_t maxDist = 200; // the most less one, mode 2

    bool operator==(const LossSettings&) const = default;
};

constexpr size_t LARGEST_LOSS_FILE = size_t { 1 } << 20; // of a larger one the proxy reads nothing

// What the proxy would read out of a file of this text, key=value lines: of a key that is given twice the last one
// holds, what is not given has its default.
LossSettings ReadLossSettings(std::string_view text);

// The text with these settings in place of its own. Other lines stay as they are, comments and unknown keys included;
// what stands behind a zero byte is never read, and goes.
std::string WithLossSettings(std::string_view text, const LossSettings& settings);

// Whether a proxy that is switched on with them withholds anything.
bool WithholdsAnything(const LossSettings& settings);

// "" when they may be written: each burst withholds something, and the next toggle switches off again.
std::string LossSettingsProblem(const LossSettings& settings);

// The most packets from the beginning of a burst to that of the next.
uint64_t LongestLossPeriod(const LossSettings& settings);

// Share of the packets that is withheld in the long run, 0 to 1.
double LossShare(const LossSettings& settings);

} // namespace arqctl
