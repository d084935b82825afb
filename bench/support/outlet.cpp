#include "outlet.h"

#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/sock_diag.h>
#include <netinet/udp.h>
#include <sys/socket.h>

#include <map>

#include "child.h"
#include "udp.h"

namespace {

// Everything is dropped at the socket, after the kernel has brought it there, and counted.
void DropEverything(int fd)
{
    sock_filter dropAll { BPF_RET | BPF_K, 0, 0, 0 };
    const sock_fprog program { 1, &dropAll };
    if (setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof(program)) != 0)
        GiveUp("no socket filter");
}

int64_t DroppedAt(int fd)
{
    uint32_t figures[SK_MEMINFO_VARS] {};
    socklen_t size = sizeof(figures);
    if (getsockopt(fd, SOL_SOCKET, SO_MEMINFO, figures, &size) != 0)
        GiveUp("this kernel does not count what a socket drops");
    return figures[SK_MEMINFO_DROPS];
}

class LoopbackOutlet : public Outlet {
public:
    void Open(int32_t count, uint16_t port) override
    {
        std::vector<UniqueFd>& sockets = m_sockets[port];
        for (int32_t i = static_cast<int32_t>(sockets.size()); i < count; ++i) {
            sockets.push_back(BoundSocket(ReceiverAddress(i, port)));
            DropEverything(sockets.back().Get());
        }
    }

    in_addr AddressOf(int32_t index) const override { return ReceiverAddress(index, 0).sin_addr; }

    int64_t Delivered(int32_t) override
    {
        int64_t total = 0;
        for (const auto& [port, sockets] : m_sockets) {
            for (const UniqueFd& receiver : sockets)
                total += DroppedAt(receiver.Get());
        }
        return total;
    }

    void Ping(int32_t count, uint16_t port, uint16_t pingPort) override
    {
        static constexpr char NOTHING = 0;
        const sockaddr_in to = LoopbackAddress(pingPort);
        for (int32_t i = 0; i < count; ++i) {
            (void)sendto(m_sockets[port][static_cast<size_t>(i)].Get(), &NOTHING, 0, 0,
                reinterpret_cast<const sockaddr*>(&to), sizeof(to));
        }
    }

    std::string Description() const override
    {
        return "loopback: sockets that drop everything, so a send also pays for the way to the receiver's socket";
    }

private:
    std::map<uint16_t, std::vector<UniqueFd>> m_sockets; // by port
};

} // namespace

void CheckCounting(Outlet& outlet, uint16_t port)
{
    constexpr int SINGLES = 10;
    constexpr int PIECES = 8; // of a train, if the kernel takes one
    constexpr uint16_t BYTES = 1328;
    outlet.Open(1, port);
    const UniqueFd sender(socket(AF_INET, SOCK_DGRAM, 0));
    const std::vector<uint8_t> bytes(size_t { BYTES } * PIECES);
    sockaddr_in to = LoopbackAddress(port);
    to.sin_addr = outlet.AddressOf(0);
    const auto send = [&](size_t length) {
        return sendto(
            sender.Get(), bytes.data(), length, 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to));
    };
    const int64_t before = outlet.Delivered(BYTES);
    int64_t sent = 0;
    for (; sent < SINGLES; ++sent)
        (void)send(BYTES);
    const int size = BYTES;
    if (setsockopt(sender.Get(), IPPROTO_UDP, UDP_SEGMENT, &size, sizeof(size)) == 0
        && send(bytes.size()) > 0)
        sent += PIECES;
    const int64_t counted = outlet.Delivered(BYTES) - before;
    if (counted != sent)
        GiveUp("of " + std::to_string(sent) + " datagrams " + std::to_string(counted) + " were counted");
}

std::string AddressText(in_addr address)
{
    char text[INET_ADDRSTRLEN] = "";
    (void)inet_ntop(AF_INET, &address, text, sizeof(text));
    return text;
}

std::string AddressList(const Outlet& outlet, int32_t count)
{
    std::string list;
    for (int32_t i = 0; i < count; ++i)
        list += (i == 0 ? "" : ",") + AddressText(outlet.AddressOf(i));
    return list;
}

std::unique_ptr<Outlet> MakeLoopbackOutlet()
{
    return std::make_unique<LoopbackOutlet>();
}
