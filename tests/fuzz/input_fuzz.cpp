// Datagrams of the input: from its socket through the encryption's region, the queue and the packet path to every
// stream, and again from the rings. Any length from 0 on, any bytes, any jump of the sequence numbers.
#include <cstddef>
#include <cstdint>
#include <string>

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

void SendMedia(World& world, InputReader& input, Loss& loss)
{
    constexpr size_t TOO_LONG = 40; // the rest of a longer datagram is cut off
    const uint8_t count = 1 + input.Byte() % 96;
    const uint8_t gap = input.Byte();
    std::string packet = TakeDatagram(input, PacketBufferPool::SLICE_BYTES + TOO_LONG, 7);
    for (uint8_t i = 0; i < count && loss.left > 0; ++i, --loss.left) {
        world.ReceiveMedia(packet);
        if (packet.size() < 4) {
            loss.isKnown = loss.isKnown && packet.empty();
            continue;
        }
        auto seq
            = static_cast<uint16_t>(static_cast<uint8_t>(packet[2]) << 8 | static_cast<uint8_t>(packet[3]));
        loss.Count(seq);
        seq = static_cast<uint16_t>(seq + gap);
        packet[2] = static_cast<char>(seq >> 8);
        packet[3] = static_cast<char>(seq);
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
    switch (input.Byte() & 7) {
    case 4:
        return AskAgain(world, input);
    case 5:
        return world.Advance(input.Byte());
    case 6:
        return world.FailSends(input.Byte());
    case 7:
        return world.SendPing("", World::Address(input), input.Byte());
    default:
        return SendMedia(world, input, loss);
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
