#include "arqctl/core/pinger.h"

#include <algorithm>

#include "arq/wire.h"

namespace arqctl {

namespace {

constexpr size_t IP_SOURCE = 12, IP_DESTINATION = 16, SHORTEST_IP_HEADER = 20;
constexpr size_t UDP_LENGTH = 4, UDP_HEADER = 8;
constexpr size_t LONGEST_PING = 64; // bytes; receivers' own are far shorter, media far longer

// Most significant byte first.
uint32_t NumberAt(std::span<const uint8_t> bytes, size_t offset, size_t size)
{
    uint32_t number = 0;
    for (const uint8_t byte : bytes.subspan(offset, size))
        number = number << 8 | byte;
    return number;
}

bool StartsWith(std::span<const uint8_t> data, uint32_t magic)
{
    if (data.size() < sizeof(magic))
        return false;
    const uint32_t word = NumberAt(data, 0, sizeof(magic));
    return word == magic || __builtin_bswap32(word) == magic;
}

} // namespace

std::optional<Pinger> ReadPinger(std::span<const uint8_t> packet)
{
    const size_t header = packet.empty() ? 0 : static_cast<size_t>(packet[0] & 0x0F) * 4;
    if (header < SHORTEST_IP_HEADER || packet.size() < header + UDP_HEADER)
        return std::nullopt;
    const std::span<const uint8_t> udp = packet.subspan(header);
    const std::span<const uint8_t> data = udp.subspan(UDP_HEADER);
    if (NumberAt(udp, UDP_LENGTH, 2) > UDP_HEADER + LONGEST_PING || StartsWith(data, STREAM_LEAVE_MAGIC))
        return std::nullopt;
    Pinger pinger;
    pinger.from = { NumberAt(packet, IP_SOURCE, 4), static_cast<uint16_t>(NumberAt(udp, 0, 2)) };
    pinger.to = { NumberAt(packet, IP_DESTINATION, 4), static_cast<uint16_t>(NumberAt(udp, 2, 2)) };
    if (!StartsWith(data, STREAM_TAG_MAGIC) || data.size() < STREAM_TAG_BYTES)
        return pinger;
    const uint32_t streamId
        = __builtin_bswap32(NumberAt(data, STREAM_MAGIC_BYTES, 4)); // least significant first
    if (streamId != 0) // 0 is the same as no tag
        pinger.streamId = streamId;
    return pinger;
}

std::vector<Pinger> TwoOfOneReceiver(const std::vector<Pinger>& pingers)
{
    for (const Pinger& one : pingers) {
        const auto other = std::ranges::find_if(
            pingers, [&](const Pinger& two) { return one.IsSameReceiver(two) && one.from != two.from; });
        if (other != pingers.end())
            return { one, *other };
    }
    return {};
}

} // namespace arqctl
