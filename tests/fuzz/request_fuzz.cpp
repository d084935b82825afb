// Datagrams on the request port, from the socket through listener and router to the engine, whose ring holds what
// was sent before. One input is a row of them, with input packets, pings and time between.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/world/quiet.h"
#include "fuzz/world/world.h"

namespace {

// How the next datagram is changed before it comes.
constexpr uint8_t REPAIR = 0x08;
constexpr uint8_t REBASE = 0x10;

void SendRequest(World& world, InputReader& input, uint8_t step)
{
    const in_addr_t addressNet = World::Address(input);
    std::string datagram = TakeDatagram(input, PacketBufferPool::SLICE_BYTES + 1, 1);
    if ((step & REBASE) != 0)
        Rebase(datagram, world.Sent().LastSeq());
    if ((step & REPAIR) != 0)
        RepairChecksum(datagram);
    world.SendRequest(datagram, addressNet, 0x7856);
}

// Packets with rising numbers, as a source sends them.
void SendMedia(World& world, InputReader& input)
{
    const uint8_t count = input.Byte() % 96;
    const uint16_t first = input.Word();
    std::string packet = TakeDatagram(input, PacketBufferPool::SLICE_BYTES, 7);
    for (uint8_t i = 0; i < count; ++i) {
        const auto seq = static_cast<uint16_t>(first + i);
        if (packet.size() >= 4) {
            packet[2] = static_cast<char>(seq >> 8);
            packet[3] = static_cast<char>(seq);
        }
        world.SendMedia(packet);
    }
}

void SendPing(World& world, InputReader& input)
{
    const in_addr_t addressNet = World::Address(input);
    const auto portNet = static_cast<uint16_t>(0x1000 + input.Byte() % 4);
    world.SendPing(TakeDatagram(input, 16, 0), addressNet, portNet);
}

void Step(World& world, InputReader& input)
{
    const uint8_t step = input.Byte();
    switch (step & 7) {
    case 0:
    case 1:
    case 2:
        return SendRequest(world, input, step);
    case 3:
        return SendMedia(world, input);
    case 4:
        return SendPing(world, input);
    case 5:
        return world.Advance(input.Byte());
    case 6:
        return world.StepWallClock(static_cast<int32_t>(input.Long()));
    default:
        return world.FailSends(input.Byte() % 8);
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/)
{
    BeQuiet();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    constexpr int MOST_STEPS = 40;
    InputReader input(data, size);
    World& world = World::Begin(input.Byte());
    for (int i = 0; i < MOST_STEPS && !input.IsEmpty(); ++i)
        Step(world, input);
    world.End();
    return 0;
}
