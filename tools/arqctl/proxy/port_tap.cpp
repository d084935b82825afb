#include "arqctl/proxy/port_tap.h"

#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <sys/socket.h>

#include <iterator>

namespace arqctl {

namespace {

constexpr uint32_t IP_FRAGMENT = 6, IP_PROTOCOL = 9, IP_DESTINATION = 16, UDP_PORT = 2;
constexpr uint32_t LATER_FRAGMENT = 0x1FFF; // bits of the offset: only the first fragment has a port

// What is meant for other machines is passed over: an interface may hand in all that it hears. Jumps count the lines that are
// left out.
bool Attach(int socket, uint16_t port, uint32_t address, uint32_t headBytes)
{
    constexpr uint32_t ANY = 0;
    sock_filter lines[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<uint32_t>(SKF_AD_OFF + SKF_AD_PKTTYPE)),
        BPF_JUMP(BPF_JMP | BPF_JGT | BPF_K, PACKET_MULTICAST, 11, 0), // of others
        BPF_STMT(BPF_LD | BPF_B | BPF_ABS, IP_PROTOCOL),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, IPPROTO_UDP, 0, 9),
        BPF_STMT(BPF_LD | BPF_H | BPF_ABS, IP_FRAGMENT),
        BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, LATER_FRAGMENT, 7, 0),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, IP_DESTINATION),
        BPF_STMT(BPF_ALU | BPF_AND | BPF_K, address == ANY ? 0 : UINT32_MAX),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, address, 0, 4),
        BPF_STMT(BPF_LDX | BPF_B | BPF_MSH, 0),
        BPF_STMT(BPF_LD | BPF_H | BPF_IND, UDP_PORT),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, port, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, headBytes),
        BPF_STMT(BPF_RET | BPF_K, 0),
    };
    const sock_fprog program { static_cast<unsigned short>(std::size(lines)), lines };
    return setsockopt(socket, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof(program)) == 0;
}

// From now on; before, nothing came that the filter had not seen.
bool Begin(int socket)
{
    sockaddr_ll every {};
    every.sll_family = AF_PACKET;
    every.sll_protocol = htons(ETH_P_IP);
    const void* const address = &every;
    return bind(socket, static_cast<const sockaddr*>(address), sizeof(every)) == 0;
}

} // namespace

PortTap::PortTap(uint16_t port, uint32_t address, uint32_t headBytes)
    : m_socket(socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)),
      m_nHeadBytes(headBytes)
{
    if (m_socket.IsValid() && !(Attach(m_socket.Get(), port, address, headBytes) && Begin(m_socket.Get())))
        m_socket.Reset();
}

uint64_t PortTap::TakeCount()
{
    tpacket_stats counts {};
    socklen_t size = sizeof(counts);
    if (getsockopt(m_socket.Get(), SOL_PACKET, PACKET_STATISTICS, &counts, &size) != 0)
        return 0;
    return counts.tp_packets; // those without room are among them
}

std::vector<std::vector<uint8_t>> PortTap::TakeHeads()
{
    std::vector<std::vector<uint8_t>> heads;
    for (;;) {
        std::vector<uint8_t> head(m_nHeadBytes);
        const ssize_t size = recv(m_socket.Get(), head.data(), head.size(), 0);
        if (size < 0)
            return heads;
        head.resize(static_cast<size_t>(size));
        heads.push_back(std::move(head));
    }
}

} // namespace arqctl
