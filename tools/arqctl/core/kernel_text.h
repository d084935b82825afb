#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace arqctl {

// Reads texts of /proc that tell of processes and their sockets. Lines that are not as the kernel writes them are passed
// over.

// A UDP socket as the kernel lists it in the process's own network.
struct UdpSocketFacts {
    uint32_t address = 0; // local, machine's byte order
    uint16_t port = 0;
    uint64_t receiveQueueBytes = 0;
    uint64_t drops = 0; // datagrams that found no room, since the socket was made
    uint64_t inode = 0;
    uint32_t user = 0; // who made it

    bool operator==(const UdpSocketFacts&) const = default;
};

// /proc/net/udp: IPv4 sockets. Of /proc/net/udp6 those that may take IPv4 datagrams: bound to every address (0 here) or to
// one of IPv4 in IPv6's form.
std::vector<UdpSocketFacts> ReadUdpTable(std::string_view text);

// The sockets of a table that `read` gives as it is at each moment. The system writes it a page at a time, and what moves up
// or down when other sockets end or begin meanwhile is in no page or in two: a longer one is read until a reading shows
// nothing new, 5 times at most. Figures are of the last reading that shows the socket.
std::vector<UdpSocketFacts> ReadUdpSockets(const std::function<std::string()>& read);

// What /proc/PID/stat says that is used here; times in ticks of sysconf(_SC_CLK_TCK).
struct ProcessTimes {
    uint64_t busyTicks = 0; // user and system
    uint64_t startTicks = 0; // since the machine started
    uint64_t residentPages = 0;
};

// False when the text has too few fields. The name in it may hold anything, blanks and brackets too.
bool ReadProcessTimes(std::string_view text, ProcessTimes& times);

// "btime" of /proc/stat: Unix time in seconds when the machine started; 0 when it is not there.
uint64_t ReadBootTime(std::string_view text);

// The words of /proc/PID/cmdline: each ends with a zero byte.
std::vector<std::string> ReadArguments(std::string_view text);

// The inode of what a descriptor's link says ("socket:[1234]"); 0 for anything else.
uint64_t SocketInode(std::string_view link);

// Whether a program of this name is the proxy: "tx_proxy", the build of single sends "tx_proxy_plain", or one with its
// version behind ("tx_proxy-1.2"); a folder in front and the kernel's mark of a replaced file behind do not count.
bool IsProxyName(std::string_view name);

} // namespace arqctl
