#include "fuzz/world/datagrams.h"

#include <cstring>

namespace {

constexpr size_t TAG = 8;

bool IsTagged(std::string_view bytes)
{
    constexpr std::string_view NO_ID("\0\0\0\0", 4);
    if (bytes.size() < TAG || bytes.substr(4, 4) == NO_ID)
        return false;
    const std::string_view magic = bytes.substr(0, 4);
    return magic == "\xBA\xBE\xFA\xCE" || magic == "\xCE\xFA\xBE\xBA" || magic == "\xDE\xAD\xBE\xEF"
        || magic == "\xEF\xBE\xAD\xDE";
}

} // namespace

std::string_view TagOf(std::string_view datagram)
{
    return datagram.substr(0, IsTagged(datagram) ? TAG : 0);
}

uint32_t StreamIdOf(std::string_view datagram)
{
    uint32_t id = 0;
    if (const std::string_view tag = TagOf(datagram); !tag.empty())
        std::memcpy(&id, tag.data() + 4, sizeof(id));
    return id;
}

bool IsLeave(std::string_view datagram)
{
    const std::string_view magic = datagram.substr(0, 4);
    return magic == "\xDE\xAD\xBE\xEF" || magic == "\xEF\xBE\xAD\xDE";
}

std::string TakeDatagram(InputReader& input, size_t most, uint8_t filler)
{
    const size_t length = input.Length(most);
    std::string datagram(input.Take(length));
    while (datagram.size() < length)
        datagram.push_back(static_cast<char>(filler * datagram.size()));
    return datagram;
}

void RepairChecksum(std::string& datagram)
{
    const size_t start = TagOf(datagram).size();
    if (datagram.size() < start + 10)
        return;
    uint32_t sum = 0;
    size_t at = start + 10;
    const auto byteAt = [&](size_t place) { return static_cast<uint8_t>(datagram[place]); };
    for (; at + 1 < datagram.size(); at += 2)
        sum += static_cast<uint32_t>(byteAt(at) | byteAt(at + 1) << 8);
    if (at < datagram.size())
        sum += byteAt(at);
    datagram[start + 2] = static_cast<char>(0U - sum);
    datagram[start + 3] = static_cast<char>((0U - sum) >> 8);
}

void Rebase(std::string& datagram, uint16_t base)
{
    for (size_t at = TagOf(datagram).size() + 10; at + 1 < datagram.size(); at += 2) {
        const int number
            = (static_cast<uint8_t>(datagram[at]) | static_cast<uint8_t>(datagram[at + 1]) << 8) + base;
        datagram[at] = static_cast<char>(number);
        datagram[at + 1] = static_cast<char>(number >> 8);
    }
}

uint16_t SeqOf(std::string_view packet)
{
    if (packet.size() < 4)
        return 0;
    return static_cast<uint16_t>(static_cast<uint8_t>(packet[2]) << 8 | static_cast<uint8_t>(packet[3]));
}

void Renumber(std::string& packet, uint16_t seq)
{
    if (packet.size() < 4)
        return;
    packet[2] = static_cast<char>(seq >> 8);
    packet[3] = static_cast<char>(seq);
}

std::string Shortened(const std::string& packet, int shape, size_t index, bool isLast)
{
    const size_t less = shape == 0 ? 0 : shape == 1 ? isLast : index % 3;
    return packet.substr(0, packet.size() > 4 + less ? packet.size() - less : packet.size());
}
