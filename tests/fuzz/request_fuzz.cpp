// Datagrams on the request port, from the socket through listener and router to the engine, whose ring holds what
// was sent before. One input is a row of them, with input packets, pings and time between.
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/world/world.h"

namespace {

// How the next datagram is changed before it comes.
constexpr uint8_t REPAIR = 0x08;
constexpr uint8_t REBASE = 0x10;
constexpr uint8_t CLAIM = 0xE0; // all three: the count of numbers stays as it is, once
constexpr uint8_t MOST_CLAIMED = 2; // times 256 numbers otherwise: what costs most is rare

// What one input may still do.
struct Budget {
    int packets = 300;
    bool mayClaim = true; // 65535 numbers
};

void LimitClaim(std::string& datagram)
{
    constexpr size_t REQUEST_BYTES = 10;
    const size_t high = TagOf(datagram).size() + 1;
    if (datagram.size() + 1 >= high + REQUEST_BYTES)
        datagram[high] = static_cast<char>(static_cast<uint8_t>(datagram[high]) % MOST_CLAIMED);
}

void SendRequest(World& world, InputReader& input, uint8_t step, Budget& budget)
{
    const in_addr_t addressNet = World::Address(input);
    std::string datagram = TakeDatagram(input, PacketBufferPool::SLICE_BYTES + 1, 1);
    if ((step & CLAIM) == CLAIM && budget.mayClaim)
        budget.mayClaim = false;
    else
        LimitClaim(datagram);
    if ((step & REBASE) != 0)
        Rebase(datagram, world.Sent().LastSeq());
    if ((step & REPAIR) != 0)
        RepairChecksum(datagram);
    world.SendRequest(datagram, addressNet, 0x7856);
}

// Packets with rising numbers, as a source sends them; some come at once.
void SendMedia(World& world, InputReader& input, size_t together, Budget& budget)
{
    constexpr uint8_t MOST = 96;
    const uint8_t shape = input.Byte();
    const uint16_t first = input.Word();
    std::string packet = TakeDatagram(input, PacketBufferPool::SLICE_BYTES, 7);
    std::vector<std::string> burst;
    for (uint8_t i = 0; i < shape % MOST && budget.packets > 0; ++i, --budget.packets) {
        Renumber(packet, static_cast<uint16_t>(first + i));
        const bool isLast = i + 1 == shape % MOST || budget.packets == 1 || burst.size() + 1 == together;
        burst.push_back(Shortened(packet, shape / MOST, burst.size(), isLast));
        if (!isLast)
            continue;
        world.SendMedia(std::vector<std::string_view>(burst.begin(), burst.end()));
        burst.clear();
    }
}

void SendPing(World& world, InputReader& input)
{
    const in_addr_t addressNet = World::Address(input);
    const auto portNet = static_cast<uint16_t>(0x1000 + input.Byte() % 4);
    world.SendPing(TakeDatagram(input, 16, 0), addressNet, portNet);
}

// Times around those that decide something, and any up to 127 ms.
uint32_t Time(InputReader& input)
{
    constexpr uint16_t EDGES[] = { 99, 100, 101, 199, 200, 599, 600, 601, 1000, 4900, 5000, 47721 };
    constexpr uint8_t FIRST_EDGE = 0x80;
    const uint8_t time = input.Byte();
    return time < FIRST_EDGE ? time : EDGES[time % std::size(EDGES)];
}

void Step(World& world, InputReader& input, Budget& budget)
{
    const uint8_t step = input.Byte();
    switch (step & 7) {
    case 0:
    case 1:
    case 2:
        return SendRequest(world, input, step, budget);
    case 3:
        return SendMedia(world, input, size_t { 1 } + step / 8, budget);
    case 4:
        return SendPing(world, input);
    case 5:
        return world.Advance(Time(input));
    case 6:
        return world.StepWallClock(static_cast<int32_t>(input.Long()));
    default:
        return world.FailSends(input.Byte());
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    constexpr int MOST_STEPS = 40;
    InputReader input(data, size);
    World& world = World::Begin(input.Byte());
    Budget budget;
    for (int i = 0; i < MOST_STEPS && !input.IsEmpty(); ++i)
        Step(world, input, budget);
    world.End();
    return 0;
}
