#include "arqctl/core/kernel_text.h"

#include <arpa/inet.h>

#include <algorithm>
#include <map>
#include <tuple>

#include "arqctl/core/fields.h"

namespace arqctl {

namespace {

// The last four bytes of an IPv6 address that stands for every address or for one of IPv4; empty for others.
std::string_view Ipv4Part(std::string_view address)
{
    constexpr size_t DIGITS = 8;
    constexpr std::string_view ANY = "000000000000000000000000", MAPPED = "0000000000000000FFFF0000";
    const std::string_view front = address.substr(0, ANY.size()), back = address.substr(ANY.size());
    return back.size() == DIGITS && (front == MAPPED || (front == ANY && back == ANY.substr(0, DIGITS)))
        ? back
        : std::string_view();
}

// "0100007F:7D7B": the address as the machine holds its four bytes in network order, the port as a number.
bool ReadLocal(std::string_view field, UdpSocketFacts& facts)
{
    constexpr size_t IPV6_DIGITS = 32;
    uint32_t addressNet = 0;
    const size_t colon = field.find(':');
    const std::string_view address = field.substr(0, colon);
    if (colon == std::string_view::npos
        || !ReadWhole(address.size() == IPV6_DIGITS ? Ipv4Part(address) : address, addressNet, 16)
        || !ReadWhole(field.substr(colon + 1), facts.port, 16))
        return false;
    facts.address = ntohl(addressNet);
    return true;
}

// "00000000:0000A2C0": what waits to be sent, and to be read.
bool ReadQueue(std::string_view field, UdpSocketFacts& facts)
{
    const size_t colon = field.find(':');
    return colon != std::string_view::npos && ReadWhole(field.substr(colon + 1), facts.receiveQueueBytes, 16);
}

// The columns of a line: sl local rem st tx:rx tr:tm retrnsmt uid timeout inode ref pointer drops.
bool ReadUdpLine(std::string_view line, UdpSocketFacts& facts)
{
    constexpr size_t LOCAL = 1, QUEUES = 4, USER = 7, INODE = 9, DROPS = 12;
    const std::vector<std::string_view> fields = CutFields(line);
    return fields.size() > DROPS && ReadLocal(fields[LOCAL], facts) && ReadQueue(fields[QUEUES], facts)
        && ReadWhole(fields[USER], facts.user) && ReadWhole(fields[INODE], facts.inode)
        && ReadWhole(fields[DROPS], facts.drops);
}

} // namespace

std::vector<UdpSocketFacts> ReadUdpTable(std::string_view text)
{
    std::vector<UdpSocketFacts> sockets;
    while (!text.empty()) {
        UdpSocketFacts facts;
        if (ReadUdpLine(TakeLine(text), facts))
            sockets.push_back(facts);
    }
    return sockets;
}

std::vector<UdpSocketFacts> ReadUdpSockets(const std::function<std::string()>& read)
{
    constexpr size_t PAGE_BYTES = 4096; // what no machine has less of
    constexpr int MOST_READINGS = 5;
    std::vector<UdpSocketFacts> sockets;
    // By inode, address and port: sockets of the kernel's own have inode 0.
    std::map<std::tuple<uint64_t, uint32_t, uint16_t>, size_t> places;
    bool isWhole = false;
    for (int i = 0; i < MOST_READINGS && !isWhole; ++i) {
        const std::string text = read();
        const size_t known = sockets.size();
        for (const UdpSocketFacts& socket : ReadUdpTable(text)) {
            const auto [place, isNew]
                = places.try_emplace({ socket.inode, socket.address, socket.port }, sockets.size());
            if (isNew)
                sockets.push_back(socket);
            else
                sockets[place->second] = socket;
        }
        isWhole = text.size() <= PAGE_BYTES || (i > 0 && sockets.size() == known);
    }
    return sockets;
}

bool ReadProcessTimes(std::string_view text, ProcessTimes& times)
{
    // Numbers of fields behind the name, which is the second of all and ends with the last bracket.
    constexpr size_t USER = 11, SYSTEM = 12, START = 19, RESIDENT = 21;
    const size_t bracket = text.rfind(')');
    if (bracket == std::string_view::npos)
        return false;
    const std::vector<std::string_view> fields = CutFields(text.substr(bracket + 1));
    uint64_t user = 0, system = 0;
    ProcessTimes read;
    if (fields.size() <= RESIDENT || !ReadWhole(fields[USER], user) || !ReadWhole(fields[SYSTEM], system)
        || !ReadWhole(fields[START], read.startTicks) || !ReadWhole(fields[RESIDENT], read.residentPages))
        return false;
    read.busyTicks = user + system;
    times = read;
    return true;
}

uint64_t ReadBootTime(std::string_view text)
{
    while (!text.empty()) {
        const std::vector<std::string_view> fields = CutFields(TakeLine(text));
        uint64_t seconds = 0;
        if (fields.size() == 2 && fields[0] == "btime" && ReadWhole(fields[1], seconds))
            return seconds;
    }
    return 0;
}

std::vector<std::string> ReadArguments(std::string_view text)
{
    std::vector<std::string> words;
    while (!text.empty()) {
        const std::string_view word = text.substr(0, text.find('\0'));
        words.emplace_back(word);
        text.remove_prefix(std::min(word.size() + 1, text.size()));
    }
    return words;
}

uint64_t SocketInode(std::string_view link)
{
    constexpr std::string_view FRONT = "socket:[";
    uint64_t inode = 0;
    if (!link.starts_with(FRONT) || !link.ends_with("]"))
        return 0;
    (void)ReadWhole(link.substr(FRONT.size(), link.size() - FRONT.size() - 1), inode);
    return inode;
}

bool IsProxyName(std::string_view name)
{
    constexpr std::string_view PROXY = "tx_proxy", PLAIN = "_plain", REPLACED = " (deleted)";
    if (name.ends_with(REPLACED))
        name.remove_suffix(REPLACED.size());
    name.remove_prefix(name.rfind('/') + 1); // npos + 1 is 0
    if (!name.starts_with(PROXY))
        return false;
    name.remove_prefix(PROXY.size());
    if (name.starts_with(PLAIN))
        name.remove_prefix(PLAIN.size());
    return name.empty()
        || (name.size() > 1 && (name[0] == '-' || name[0] == '.') && name[1] >= '0' && name[1] <= '9');
}

} // namespace arqctl
