#include "floor_settings.h"

#include <algorithm>
#include <cstdlib>
#include <string>

#include "child.h"
#include "floor_packet.h"
#include "udp.h"

namespace {

constexpr char USAGE[]
    = "Usage: floors [switches] INPUT_PORT DEST_PORT ADDRESS,ADDRESS,...\n"
      "  --threads 1|2          2: one receives, another one sends (2)\n"
      "  --send plain|connected|together\n"
      "                         a sendto each, a send on a connected socket each, or one sendmmsg\n"
      "                         for all receivers over a socket that they share (plain)\n"
      "  --train N              up to N packets that wait go as one UDP_SEGMENT message (1: never)\n"
      "  --receive one|many     recvfrom, or recvmmsg with MSG_WAITFORONE (one)\n"
      "  --time-out MS          receive time-out on the input socket (0: none)\n"
      "  --wake futex|condition what the sending thread sleeps on; condition: with a mutex (futex)\n"
      "  --stamp                reads the clock once a packet, as the proxy does\n"
      "  --send-buffer BYTES    SO_SNDBUF of each sending socket (0: as it is)\n";

uint16_t Port(const char* text)
{
    return static_cast<uint16_t>(std::strtoul(text, nullptr, 10));
}

// Takes a switch with its value from argv[i] on; returns how many words that were, 0 for an unknown one.
int TakeSwitch(FloorSettings& settings, const std::string& name, const std::string& value)
{
    if (name == "--stamp") {
        settings.stamp = true;
        return 1;
    }
    if (name == "--threads")
        settings.oneThread = value == "1";
    else if (name == "--send") {
        settings.connected = value == "connected";
        settings.together = value == "together";
    } else if (name == "--train")
        settings.train
            = std::clamp(static_cast<uint32_t>(std::strtoul(value.c_str(), nullptr, 10)), 1U, MOST_AT_ONCE);
    else if (name == "--receive")
        settings.receiveMany = value == "many";
    else if (name == "--time-out")
        settings.timeOutMs = std::strtol(value.c_str(), nullptr, 10);
    else if (name == "--wake")
        settings.wakeByCondition = value == "condition";
    else if (name == "--send-buffer")
        settings.sendBuffer = std::atoi(value.c_str());
    else
        return 0;
    return 2;
}

} // namespace

FloorSettings ReadFloorSettings(int argc, char** argv)
{
    constexpr int POSITIONALS = 3;
    FloorSettings settings;
    int place = 1;
    while (place + POSITIONALS < argc) {
        const int words = TakeSwitch(settings, argv[place], argv[place + 1]);
        if (words == 0)
            GiveUp(USAGE);
        place += words;
    }
    if (place + POSITIONALS != argc)
        GiveUp(USAGE);
    settings.inputPort = Port(argv[place]);
    settings.destinations = ReadAddresses(argv[place + 2], Port(argv[place + 1]));
    return settings;
}
