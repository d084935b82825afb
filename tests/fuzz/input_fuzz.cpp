// Datagrams of the input: from its socket through the encryption's region, the queue and the packet path to every
// stream, and again from the rings. Any length from 0 on, any bytes, any jump of the sequence numbers.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/world/require.h"
#include "fuzz/world/world.h"

namespace {

// The loss counter as the numbers alone give it.
struct Loss {
    void Count(uint16_t seq)
    {
        const auto gap = static_cast<int16_t>(static_cast<uint16_t>(seq - expected));
        if (!isFirst && gap > 0)
            lost += static_cast<uint32_t>(gap);
        isFirst = false;
        expected = static_cast<uint16_t>(seq + 1);
    }

    bool isFirst = true;
    uint16_t expected = 0;
    uint32_t lost = 0;
    int left = 300; // packets of one input
    bool isKnown = true; // not with a datagram that is too short for a number
};

bool IsRtp(const World& world)
{
    return world.GetSetup() != World::Setup::UdpInput && world.GetSetup() != World::Setup::MulticastUdpInput;
}

void CountLoss(const std::string& packet, Loss& loss)
{
    if (packet.size() >= 4)
        loss.Count(SeqOf(packet));
    else
        loss.isKnown = loss.isKnown && packet.empty();
}

// Packets with rising numbers, some of which come at once. Their lengths are equal, or so but for the last of those
// that come at once, or each another.
void SendMedia(World& world, InputReader& input, int together, Loss& loss)
{
    constexpr size_t TOO_LONG = 40; // the rest of a longer datagram is cut off
    constexpr uint8_t MOST = 96;
    const uint8_t shape = input.Byte();
    const uint8_t gap = input.Byte();
    std::string packet = TakeDatagram(input, PacketBufferPool::SLICE_BYTES + TOO_LONG, 7);
    for (int left = 1 + shape % MOST; left > 0 && loss.left > 0;) {
        std::vector<std::string> burst;
        for (; left > 0 && loss.left > 0 && static_cast<int>(burst.size()) < together; --left, --loss.left) {
            const bool isLast = left == 1 || static_cast<int>(burst.size()) + 1 == together;
            burst.push_back(Shortened(packet, shape / MOST, burst.size(), isLast));
            CountLoss(burst.back(), loss);
            Renumber(packet, static_cast<uint16_t>(SeqOf(packet) + gap));
        }
        world.ReceiveMedia(std::vector<std::string_view>(burst.begin(), burst.end()));
    }
}

void AskAgain(World& world, InputReader& input)
{
    std::string request("\x00\x01\x00\x00\x02\x00\xC8\x00\x00\x00", 10); // 256 numbers, 2 retries, 200 ms
    const uint16_t first = input.Word();
    for (uint16_t i = 0; i < 256; ++i) {
        const auto seq = static_cast<uint16_t>(first + i);
        request.push_back(static_cast<char>(seq));
        request.push_back(static_cast<char>(seq >> 8));
    }
    RepairChecksum(request);
    world.SendRequest(request, World::Address(input), 0x7856);
}

void Step(World& world, InputReader& input, Loss& loss)
{
    const uint8_t step = input.Byte();
    switch (step & 7) {
    case 4:
        return AskAgain(world, input);
    case 5:
        return world.Advance(input.Byte());
    case 6:
        return world.FailSends(input.Byte());
    case 7:
        return world.SendPing("", World::Address(input), input.Byte());
    default:
        return SendMedia(world, input, 1 + step / 8, loss);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    constexpr int MOST_STEPS = 24;
    InputReader input(data, size);
    World& world = World::Begin(input.Byte());
    Loss loss;
    for (int i = 0; i < MOST_STEPS && !input.IsEmpty(); ++i)
        Step(world, input, loss);
    if (IsRtp(world) && loss.isKnown)
        Require(
            static_cast<uint32_t>(world.Replicator().RxStats().m_nRxLoss) == loss.lost, "loss is counted");
    world.End();
    return 0;
}
