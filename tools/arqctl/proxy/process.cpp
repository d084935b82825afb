#include "arqctl/proxy/process.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <set>

#include "arqctl/core/fields.h"
#include "arqctl/proxy/folder.h"
#include "base/unique_fd.h"
#include "common/endpoint.h"

namespace arqctl {

namespace {

constexpr size_t LARGEST_TEXT = size_t { 16 } << 20;

std::string FolderOf(int pid)
{
    return "/proc/" + std::to_string(pid) + "/";
}

bool IsProxy(const std::string& folder)
{
    if (const auto file = LinkText(folder + "exe"))
        return IsProxyName(*file);
    std::string name = ReadText(folder + "comm").value_or("");
    return IsProxyName(std::string_view { name }.substr(0, name.find('\n')));
}

// Empty where the descriptors may not be looked at: a process that lets itself be looked at has some.
std::optional<std::set<uint64_t>> SocketInodes(const std::string& folder)
{
    const std::vector<std::string> names = NamesIn(folder + "fd");
    if (names.empty())
        return std::nullopt;
    std::set<uint64_t> inodes;
    for (const std::string& name : names) {
        const uint64_t inode
            = SocketInode(LinkText(std::string(folder).append("fd/").append(name)).value_or(""));
        if (inode != 0)
            inodes.insert(inode);
    }
    return inodes;
}

bool IsPortOf(const ProxyOptions& options, uint16_t port)
{
    return port == options.listenPort || port == PingPort(options) || port == options.requestPort
        || port == LockPort(options.instance);
}

bool IsLikely(const ProcessFacts& facts, const UdpSocketFacts& socket)
{
    return socket.user == facts.user && IsPortOf(facts.options, socket.port);
}

// By user and port, what has no double.
std::vector<UdpSocketFacts> LikelySockets(const ProcessFacts& facts, const std::vector<UdpSocketFacts>& all)
{
    std::vector<UdpSocketFacts> likely;
    for (const UdpSocketFacts& socket : all) {
        const auto isSame = [&](const UdpSocketFacts& other) {
            return other.port == socket.port && other.address == socket.address;
        };
        if (IsLikely(facts, socket) && std::ranges::count_if(all, isSame) == 1)
            likely.push_back(socket);
    }
    return likely;
}

std::vector<UdpSocketFacts> SocketsOf(const ProcessFacts& facts, const std::string& folder)
{
    const auto inodes = SocketInodes(folder);
    std::vector<UdpSocketFacts> sockets
        = ReadUdpSockets([&] { return ReadText(folder + "net/udp").value_or(""); });
    if (!inodes)
        return LikelySockets(facts, sockets);
    std::erase_if(sockets, [&](const UdpSocketFacts& socket) { return !inodes->contains(socket.inode); });
    return sockets;
}

bool ReadTimes(const std::string& folder, ProcessFacts& facts)
{
    ProcessTimes times;
    if (!ReadProcessTimes(ReadText(folder + "stat").value_or(""), times))
        return false;
    const auto ticks = static_cast<double>(sysconf(_SC_CLK_TCK));
    const uint64_t boot = ReadBootTime(ReadText("/proc/stat").value_or(""));
    facts.startTime = static_cast<double>(boot) + static_cast<double>(times.startTicks) / ticks;
    facts.processorSeconds = static_cast<double>(times.busyTicks) / ticks;
    facts.residentBytes = times.residentPages * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    return true;
}

} // namespace

const UdpSocketFacts* ProcessFacts::Input() const
{
    uint32_t address = 0;
    if (!options.group.empty() && !common::ParseAddress(options.group, address))
        return nullptr;
    const auto found = std::ranges::find_if(sockets, [&](const UdpSocketFacts& socket) {
        return socket.port == options.listenPort && socket.address == address;
    });
    return found == sockets.end() ? nullptr : &*found;
}

std::optional<std::string> ReadText(const std::string& path)
{
    const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file.IsValid())
        return std::nullopt;
    std::string text;
    std::array<char, 4096> piece;
    while (text.size() < LARGEST_TEXT) {
        const ssize_t length = read(file.Get(), piece.data(), piece.size());
        if (length < 0 && errno == EINTR)
            continue;
        if (length < 0 && text.empty())
            return std::nullopt;
        if (length <= 0)
            break;
        text.append(piece.data(), static_cast<size_t>(length));
    }
    return text;
}

std::optional<ProcessFacts> FactsOf(int pid)
{
    const std::string folder = FolderOf(pid);
    struct stat status {};
    ProcessFacts facts;
    facts.pid = pid;
    if (pid <= 0 || stat(folder.c_str(), &status) != 0 || !IsProxy(folder))
        return std::nullopt;
    // A process that has ended and was not waited for has no words any more.
    const auto words = ReadArguments(ReadText(folder + "cmdline").value_or(""));
    if (words.empty() || !ReadProxyOptions(words, facts.options) || !ReadTimes(folder, facts))
        return std::nullopt;
    facts.user = status.st_uid;
    facts.sockets = SocketsOf(facts, folder);
    return facts;
}

std::vector<int> ProxyProcesses()
{
    std::vector<int> processes;
    for (const std::string& name : NamesIn("/proc")) {
        int pid = 0;
        if (ReadWhole(name, pid) && pid > 0 && IsProxy(FolderOf(pid)))
            processes.push_back(pid);
    }
    std::ranges::sort(processes);
    return processes;
}

} // namespace arqctl
