// Datagrams on the ping port, from the socket on: receivers join, move, stay, fall silent and leave, more of them
// than there is room for. Who has a stream gets the media, and nobody else.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "fuzz/world/world.h"

namespace {

// What one input may still do.
struct Budget {
    int pings = 400; // of many receivers at once
    uint32_t ms = 40000;

    uint32_t Time(uint32_t wantedMs)
    {
        const uint32_t givenMs = std::min(wantedMs, ms);
        ms -= givenMs;
        return givenMs;
    }
};

void SendPing(World& world, InputReader& input)
{
    const in_addr_t addressNet = World::Address(input);
    const auto portNet = static_cast<uint16_t>(0x1000 + input.Byte() % 4);
    world.SendPing(TakeDatagram(input, PacketBufferPool::SLICE_BYTES + 1, 0), addressNet, portNet);
}

// Many receivers at once, each with an ID of its own: they join or leave.
void SendPings(World& world, InputReader& input, Budget& budget)
{
    const uint8_t count = input.Byte() % 64;
    uint32_t id = input.Byte();
    const bool isLeave = (input.Byte() & 1) != 0;
    for (uint8_t i = 0; i < count && budget.pings > 0; ++i, ++id, --budget.pings) {
        std::string ping(isLeave ? "\xDE\xAD\xBE\xEF" : "\xBA\xBE\xFA\xCE");
        ping.append(reinterpret_cast<const char*>(&id), sizeof(id));
        world.SendPing(ping, 0x0A000000U + id, 0x3412);
    }
}

void Step(World& world, InputReader& input, Budget& budget)
{
    constexpr uint32_t LONG_MS = 100;
    switch (input.Byte() & 7) {
    case 0:
    case 1:
    case 2:
        return SendPing(world, input);
    case 3:
        return SendPings(world, input, budget);
    case 4:
        return world.Advance(budget.Time(input.Byte()));
    case 5:
        return world.Advance(budget.Time(LONG_MS * input.Byte()));
    case 6:
        return world.SendMedia("\x80\x21\x00\x01media of some length");
    default: {
        const std::string command(input.Take(input.Byte() % 32));
        (void)world.Command(command.c_str());
    }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    constexpr int MOST_STEPS = 60;
    Budget budget;
    InputReader input(data, size);
    World& world = World::Begin(input.Byte());
    for (int i = 0; i < MOST_STEPS && !input.IsEmpty(); ++i)
        Step(world, input, budget);
    world.End();
    return 0;
}
