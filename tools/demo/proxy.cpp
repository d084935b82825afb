#include "demo/proxy.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <set>
#include <string_view>

#include "demo/format.h"

namespace demo {

namespace {

constexpr int FIRST_INSTANCE = 600;
constexpr int INSTANCES = 40;
constexpr int LOCK_PORT_BASE = 32123;
constexpr int BLOCK_BASE = 12000;
constexpr int BLOCK_PORTS = 8;
constexpr int64_t ASK_EVERY_US = 1'000'000;
constexpr const char* ALREADY_RUNNING = "Process already running!";

// Ports of bound UDP sockets, without disturbing anyone by trying to bind.
std::set<uint16_t> BoundPorts()
{
    std::set<uint16_t> ports;
    FILE* const file = std::fopen("/proc/net/udp", "re");
    if (file == nullptr)
        return ports;
    std::array<char, 512> line;
    while (std::fgets(line.data(), line.size(), file) != nullptr) { // "  12: 0100007F:7D7B ..."
        const std::string_view text = line.data();
        const size_t colon = text.find(':', text.find(':') + 1);
        unsigned port = 0;
        if (colon != std::string_view::npos
            && std::from_chars(text.data() + colon + 1, text.data() + text.size(), port, 16).ec
                == std::errc())
            ports.insert(static_cast<uint16_t>(port));
    }
    (void)std::fclose(file);
    return ports;
}

// The number behind "NAME=" at the beginning of a line.
bool ReadNumber(const std::string& reply, const char* name, int64_t& number)
{
    const std::string wanted = std::string(name) + "=";
    for (size_t at = reply.find(wanted); at != std::string::npos; at = reply.find(wanted, at + 1)) {
        if (at != 0 && reply[at - 1] != '\n')
            continue;
        const char* const start = reply.data() + at + wanted.size();
        return std::from_chars(start, reply.data() + reply.size(), number).ec == std::errc();
    }
    return false;
}

} // namespace

ProxyPorts::ProxyPorts(int number) : instance(number)
{
    const int block = BLOCK_BASE + BLOCK_PORTS * (number - FIRST_INSTANCE);
    input = static_cast<uint16_t>(block);
    ping = static_cast<uint16_t>(block + 2);
    request = static_cast<uint16_t>(block + 3);
    relay = static_cast<uint16_t>(block + 4);
}

std::vector<uint16_t> ProxyPorts::All() const
{
    return { input, ping, request, relay, static_cast<uint16_t>(relay + 1),
        static_cast<uint16_t>(LOCK_PORT_BASE + instance) };
}

std::vector<int> FreeInstances()
{
    const std::set<uint16_t> bound = BoundPorts();
    std::vector<int> free;
    for (int step = 0; step < INSTANCES; ++step) {
        const int instance = FIRST_INSTANCE + (getpid() + step) % INSTANCES;
        if (std::ranges::none_of(
                ProxyPorts(instance).All(), [&](uint16_t port) { return bound.contains(port); }))
            free.push_back(instance);
    }
    return free;
}

std::string ControlPath(int instance)
{
    return Format("/dev/arq_tx_ctrl%d", instance);
}

std::optional<ProxyFigures> ParseProxyFigures(const std::string& reply)
{
    int64_t received = 0, sent = 0;
    ProxyFigures figures;
    if (!ReadNumber(reply, "RECV_PACKETS", received)
        || !ReadNumber(reply, "RECV_BITRATE", figures.receivedBits)
        || !ReadNumber(reply, "RECV_LOSS", figures.inputLoss) || !ReadNumber(reply, "SEND_PACKETS", sent)
        || !ReadNumber(reply, "SEND_BITRATE", figures.sentBits))
        return std::nullopt;
    figures.received = static_cast<uint64_t>(received);
    figures.sent = static_cast<uint64_t>(sent);
    return figures;
}

bool Proxy::Start(const std::string& binary, const ProxyPorts& ports)
{
    m_nInstance = ports.instance;
    m_readyLines = { Format("Listening on port %d for incoming stream", ports.input),
        Format("SocketListener: sock bound to port %d", ports.ping),
        Format("SocketListener: sock bound to port %d", ports.request) };
    return m_child.Start({ binary, "-I", Format("%d", ports.instance), "-p", Format("%d", ports.ping), "-r",
                             Format("%d", ports.request), Format("%d", ports.input) },
        Child::Pipes::Messages);
}

Proxy::State Proxy::Look()
{
    const bool hasEnded = m_child.Status().has_value();
    m_child.ReadMessages();
    if (hasEnded)
        return m_child.HasSaid(ALREADY_RUNNING) ? State::Taken : State::Ended;
    const bool isReady = std::ranges::all_of(
        m_readyLines, [this](const std::string& line) { return m_child.HasSaid(line); });
    return isReady ? State::Ready : State::Starting;
}

bool Proxy::HasServed(const char* what, const std::string& address) const
{
    return m_child.HasSaid(what, " for " + address + " ID:0x00000000");
}

void Proxy::AskFigures(int64_t nowUs)
{
    if (nowUs < m_nNextAskUs)
        return;
    m_nNextAskUs = nowUs + ASK_EVERY_US;
    m_reply.clear();
    m_control.Reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address {};
    address.sun_family = AF_UNIX;
    const std::string path = ControlPath(m_nInstance);
    (void)path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    constexpr std::string_view COMMAND = "AllStats";
    if (!m_control.IsValid()
        || connect(m_control.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0
        || send(m_control.Get(), COMMAND.data(), COMMAND.size(), MSG_NOSIGNAL) < 0)
        m_control.Reset();
}

// The answer comes in one piece; the connection is closed once it is read, since the proxy serves one at a time.
void Proxy::ReadFigures()
{
    std::array<char, 4096> bytes;
    const ssize_t count = m_control.IsValid() ? recv(m_control.Get(), bytes.data(), bytes.size(), 0) : 0;
    if (count < 0)
        return;
    m_reply.append(bytes.data(), static_cast<size_t>(count));
    m_control.Reset();
    if (const auto figures = ParseProxyFigures(m_reply))
        m_figures = figures;
}

std::string Proxy::HowItEnded()
{
    m_child.ReadMessages();
    const int status = m_child.Status().value_or(0);
    const std::string how = status < 0 ? Format("killed by signal %d", -status) : Format("status %d", status);
    return how + "; its last line: " + m_child.LastLine();
}

} // namespace demo
