#pragma once

#include "arqlink/core/settings.h"

#include <span>
#include <string>
#include <string_view>

namespace arqlink {

// A setting as people write it, the same on the command line and in a script.
struct SettingName {
    std::string_view name; // "drop-seq"
    std::string_view value; // what stands for its value in a help text: "LIST"
    std::string_view meaning; // one sentence without its full stop
};

// In the order in which a help text shows them.
std::span<const SettingName> SettingNames();

// Takes one over: ("loss", "5%"), ("burst", "1%,25%"), ("queue", "64k"), ("blackout", "on"). "off" and "0" switch one
// off. False leaves the settings as they were; `problem` is then a sentence without its full stop that names the value
// and what it should be.
bool ApplySetting(Settings& settings, std::string_view name, std::string_view value, std::string& problem);

// Ends all that loses, doubles or changes packets. Delay, jitter, order, rate and queue stay.
void MakeClean(Settings& settings);

// What differs from a line that does nothing, as it would be written: "loss 5% delay 20ms"; "clean" if nothing does.
std::string SettingsText(const Settings& settings);

} // namespace arqlink
