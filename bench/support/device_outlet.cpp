#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/ip.h>
#include <netinet/udp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "base/unique_fd.h"
#include "outlet.h"
#include "udp.h"

namespace {

constexpr char DEVICE[] = "swallow0";
constexpr uint32_t OWN_ADDRESS = 0x0A4D0001; // 10.77.0.1; the destinations are 10.77.1.1 and up
constexpr uint32_t FIRST_DESTINATION = 0x0A4D0101;
constexpr int64_t HEADER_BYTES = 14 + sizeof(iphdr) + sizeof(udphdr); // of a frame or of a whole train

void WriteFile(const char* path, const char* text)
{
    std::ofstream(path) << text;
}

bool Run(const std::string& command)
{
    return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

// The devices that programs need, in a /dev that no other program sees: control sockets do not stay behind.
bool MakeOwnDev()
{
    constexpr mode_t MODE = S_IFCHR | 0666;
    struct Node {
        const char* path;
        unsigned minor;
    };
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0
        || mount("tmpfs", "/dev", "tmpfs", 0, "mode=0755") != 0)
        return false;
    for (const Node& node : { Node { "/dev/null", 3 }, Node { "/dev/zero", 5 }, Node { "/dev/random", 8 },
             Node { "/dev/urandom", 9 } }) {
        if (mknod(node.path, MODE, makedev(1, node.minor)) != 0)
            return false;
    }
    return true;
}

// A dummy device counts what it drops as sent, an ifb device, to which nothing is redirected, as received.
// Both take trains whole, as most network cards do.
bool MakeDevice(std::string& kind)
{
    for (const char* candidate : { "dummy", "ifb" }) {
        if (Run(std::string("ip link add ") + DEVICE + " txqueuelen 0 type " + candidate)) {
            kind = candidate;
            return Run(std::string("ip addr add 10.77.0.1/16 dev ") + DEVICE)
                && Run(std::string("ip link set ") + DEVICE + " mtu 1500 up");
        }
    }
    return false;
}

struct Counters {
    int64_t bytes = 0;
    int64_t packets = 0;
};

// Both directions together: whichever the device counts in.
Counters ReadCounters()
{
    constexpr int FIGURES = 16;
    std::ifstream table("/proc/self/net/dev");
    std::string line;
    while (std::getline(table, line)) {
        const size_t name = line.find(std::string(DEVICE) + ":");
        if (name == std::string::npos)
            continue;
        std::istringstream words(line.substr(name + sizeof(DEVICE)));
        int64_t figures[FIGURES] {};
        for (int64_t& figure : figures)
            words >> figure;
        return { figures[0] + figures[8], figures[1] + figures[9] };
    }
    return {};
}

struct PingDatagram {
    iphdr ip;
    udphdr udp;
};

class DeviceOutlet : public Outlet {
public:
    explicit DeviceOutlet(std::string kind)
        : m_kind(std::move(kind)),
          m_pinger(socket(AF_INET, SOCK_RAW, IPPROTO_RAW))
    {
    }

    void Open(int32_t, uint16_t) override {}

    in_addr AddressOf(int32_t index) const override
    {
        return { htonl(FIRST_DESTINATION + static_cast<uint32_t>(index)) };
    }

    // A train is one packet to the device, with one set of headers.
    int64_t Delivered(int32_t payloadBytes) override
    {
        const Counters counters = ReadCounters();
        return (counters.bytes - counters.packets * HEADER_BYTES) / payloadBytes;
    }

    // A raw socket may send from any address.
    void Ping(int32_t count, uint16_t port, uint16_t pingPort) override
    {
        sockaddr_in to {};
        to.sin_family = AF_INET;
        to.sin_addr.s_addr = htonl(OWN_ADDRESS);
        for (int32_t i = 0; i < count; ++i) {
            PingDatagram ping {};
            ping.ip.version = 4;
            ping.ip.ihl = sizeof(iphdr) / 4;
            ping.ip.ttl = IPDEFTTL;
            ping.ip.protocol = IPPROTO_UDP;
            ping.ip.saddr = AddressOf(i).s_addr;
            ping.ip.daddr = to.sin_addr.s_addr;
            ping.udp.source = htons(port);
            ping.udp.dest = htons(pingPort);
            ping.udp.len = htons(sizeof(udphdr));
            (void)sendto(
                m_pinger.Get(), &ping, sizeof(ping), 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to));
        }
    }

    std::string Description() const override
    {
        return "own network namespace: a device (" + m_kind
            + ") that drops what it is given to send, and counts it";
    }

private:
    std::string m_kind;
    UniqueFd m_pinger;
};

} // namespace

std::unique_ptr<Outlet> MakeDeviceOutlet(std::string& why)
{
    if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) {
        why = std::string("no network namespace: ") + std::strerror(errno)
            + (geteuid() != 0 ? " (not root)" : "");
        return nullptr;
    }
    if (!MakeOwnDev()) {
        why = std::string("no private /dev: ") + std::strerror(errno);
        return nullptr;
    }
    for (const char* path :
        { "/proc/sys/net/ipv6/conf/all/disable_ipv6", "/proc/sys/net/ipv6/conf/default/disable_ipv6" })
        WriteFile(path, "1"); // nothing but what is measured leaves by the device
    std::string kind;
    (void)Run("ip link set lo up");
    if (!MakeDevice(kind)) {
        why = "neither a dummy nor an ifb device (ip link add ... type dummy)";
        return nullptr;
    }
    return std::make_unique<DeviceOutlet>(kind);
}
