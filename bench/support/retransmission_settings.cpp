#include "retransmission_settings.h"

#include <cstdlib>

#include "child.h"

RetransmissionSettings ReadRetransmissionSettings(int argc, char** argv)
{
    constexpr char USAGE[] = "Usage: retransmission [--rounds N] [--seconds N] [--quiet-below PROCESSORS]\n"
                             "                      [--proxy PATH]... [--loopback]";
    RetransmissionSettings settings;
    for (int i = 1; i < argc; ++i) {
        const std::string name = argv[i];
        if (name == "--loopback") {
            settings.loopback = true;
            continue;
        }
        if (i + 1 == argc)
            GiveUp(USAGE);
        const char* text = argv[++i];
        const double value = std::strtod(text, nullptr);
        if (name == "--proxy")
            settings.proxies.emplace_back(text);
        else if (value > 0 && name == "--rounds")
            settings.rounds = static_cast<int>(value);
        else if (value > 0 && name == "--seconds")
            settings.seconds = value;
        else if (value > 0 && name == "--quiet-below")
            settings.quietBelow = value;
        else
            GiveUp(USAGE);
    }
    if (settings.proxies.empty())
        settings.proxies.emplace_back(TX_PROXY_BIN);
    return settings;
}
