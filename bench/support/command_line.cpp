#include "command_line.h"

#include <cstdlib>
#include <cstring>
#include <string>

#include "child.h"

BenchSettings ReadBenchSettings(int argc, char** argv)
{
    BenchSettings settings;
    for (int i = 1; i < argc; i += 2) {
        const double value = i + 1 < argc ? std::strtod(argv[i + 1], nullptr) : 0;
        if (value > 0 && std::strcmp(argv[i], "--rounds") == 0)
            settings.rounds = static_cast<int>(value);
        else if (value > 0 && std::strcmp(argv[i], "--seconds") == 0)
            settings.seconds = value;
        else if (value > 0 && std::strcmp(argv[i], "--rate") == 0)
            settings.perSecond = static_cast<int>(value);
        else if (value > 0 && std::strcmp(argv[i], "--receivers") == 0)
            settings.receivers = static_cast<int>(value);
        else
            GiveUp(std::string("Usage: ") + argv[0]
                + " [--rounds N] [--seconds N] [--rate DATAGRAMS_PER_S] [--receivers N]");
    }
    return settings;
}
