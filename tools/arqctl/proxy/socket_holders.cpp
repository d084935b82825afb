#include "arqctl/proxy/socket_holders.h"

#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <functional>

#include "arqctl/core/fields.h"
#include "arqctl/proxy/folder.h"
#include "arqctl/proxy/process.h"
#include "base/unique_fd.h"

namespace arqctl {

namespace {

// Calls take(descriptor, inode) for each socket of a process.
void ForEachSocket(int pid, const std::function<void(int fd, uint64_t inode)>& take)
{
    const std::string folder = "/proc/" + std::to_string(pid) + "/fd/";
    for (const std::string& name : NamesIn(folder)) {
        int fd = 0;
        const uint64_t inode = SocketInode(LinkText(folder + name).value_or(""));
        if (inode != 0 && ReadWhole(name, fd))
            take(fd, inode);
    }
}

std::string NameOfProcess(int pid)
{
    const std::string name = ReadText("/proc/" + std::to_string(pid) + "/comm").value_or("?");
    return name.substr(0, name.find('\n'));
}

UniqueFd Duplicate(int pid, int fd)
{
    const UniqueFd process(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    if (!process.IsValid())
        return {};
    return UniqueFd(static_cast<int>(syscall(SYS_pidfd_getfd, process.Get(), fd, 0)));
}

} // namespace

std::map<uint64_t, SocketHolder> HoldersOf(const std::set<uint64_t>& inodes)
{
    std::map<uint64_t, SocketHolder> holders;
    if (inodes.empty())
        return holders;
    for (const std::string& entry : NamesIn("/proc")) {
        int pid = 0;
        if (!ReadWhole(entry, pid))
            continue;
        ForEachSocket(pid, [&](int /*fd*/, uint64_t inode) {
            if (inodes.contains(inode) && !holders.contains(inode))
                holders[inode] = { pid, NameOfProcess(pid) };
        });
    }
    return holders;
}

std::optional<uint64_t> ReceiveBufferOf(int pid, uint64_t inode)
{
    std::optional<uint64_t> room;
    ForEachSocket(pid, [&](int fd, uint64_t found) {
        if (found != inode || room)
            return;
        const UniqueFd copy = Duplicate(pid, fd);
        int bytes = 0;
        socklen_t size = sizeof(bytes);
        // The number may stand for something else by now.
        if (copy.IsValid()
            && SocketInode(LinkText("/proc/self/fd/" + std::to_string(copy.Get())).value_or("")) == inode
            && getsockopt(copy.Get(), SOL_SOCKET, SO_RCVBUF, &bytes, &size) == 0 && bytes > 0)
            room = static_cast<uint64_t>(bytes);
    });
    return room;
}

} // namespace arqctl
