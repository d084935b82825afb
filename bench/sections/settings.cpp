#include "settings.h"

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <map>
#include <sstream>

#include "../support/child.h"

namespace {

[[noreturn]] void ShowUsage(const std::vector<std::string>& sections)
{
    std::string names;
    for (const std::string& name : sections)
        names += (names.empty() ? "" : ",") + name;
    GiveUp("Usage: comparison [options]\n"
           "  --only NAME,...      sections: "
        + names
        + "\n"
          "  --receivers N        only this number of receivers\n"
          "  --burst N            only bursts of this size; 1: evenly\n"
          "  --proxy PATH         this tx_proxy; more than one are compared with each other\n"
          "  --no-floors          without the rows of bench/floors, except B\n"
          "  --no-peers           without other programs\n"
          "  --rounds N           (7)\n"
          "  --seconds N          length of one turn in a round (1)\n"
          "  --rate N             datagrams/s (2000)\n"
          "  --quiet-below N      a round counts while other programs use less than N processors (0.15)\n"
          "  --sleep              the sender sleeps between datagrams instead of waiting awake\n"
          "  --loopback           not in a network namespace of its own\n"
          "  --quick              one short round of everything of ours: whether it works, not how fast");
}

void MakeQuick(Settings& settings)
{
    constexpr double NEVER = 1e9;
    settings.quick = true;
    settings.peers = false;
    settings.rounds = 1;
    settings.seconds = 0.05;
    settings.quietBelow = NEVER;
    settings.receivers = { 2 };
}

std::vector<std::string> Words(const std::string& list)
{
    std::vector<std::string> words;
    std::istringstream text(list);
    for (std::string word; std::getline(text, word, ',');)
        words.push_back(word);
    return words;
}

} // namespace

bool Settings::Wants(const std::string& section) const
{
    return only.empty() || std::find(only.begin(), only.end(), section) != only.end();
}

Settings ReadSettings(int argc, char** argv, const std::vector<std::string>& sections)
{
    Settings settings;
    const std::map<std::string, std::function<void()>> flags {
        { "--sleep", [&] { settings.sleep = true; } },
        { "--loopback", [&] { settings.loopback = true; } },
        { "--no-floors", [&] { settings.floors = false; } },
        { "--no-peers", [&] { settings.peers = false; } },
        { "--quick", [&] { MakeQuick(settings); } },
    };
    const std::map<std::string, std::function<void(double)>> numbers {
        { "--rounds", [&](double value) { settings.rounds = static_cast<int>(value); } },
        { "--seconds", [&](double value) { settings.seconds = value; } },
        { "--rate", [&](double value) { settings.perSecond = static_cast<int>(value); } },
        { "--receivers", [&](double value) { settings.receivers = { static_cast<int32_t>(value) }; } },
        { "--burst", [&](double value) { settings.bursts = { static_cast<int>(value) }; } },
        { "--quiet-below", [&](double value) { settings.quietBelow = value; } },
    };
    for (int i = 1; i < argc; ++i) {
        const std::string name = argv[i];
        const char* text = i + 1 < argc ? argv[i + 1] : "";
        const double value = std::strtod(text, nullptr);
        if (const auto flag = flags.find(name); flag != flags.end()) {
            flag->second();
            continue;
        }
        ++i;
        if (const auto number = numbers.find(name); number != numbers.end() && value > 0)
            number->second(value);
        else if (name == "--proxy" && *text != '\0')
            settings.proxies.emplace_back(text);
        else if (name == "--only" && *text != '\0')
            settings.only = Words(text);
        else
            ShowUsage(sections);
    }
    for (const std::string& name : settings.only) {
        if (std::find(sections.begin(), sections.end(), name) == sections.end())
            ShowUsage(sections);
    }
    if (settings.proxies.empty())
        settings.proxies.emplace_back(TX_PROXY_BIN);
    return settings;
}
