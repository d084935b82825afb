#include "demo/sandbox.h"

#include <fcntl.h>
#include <linux/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <vector>

#include "base/unique_fd.h"
#include "demo/format.h"

namespace demo {

namespace {

// What programs expect in any /dev.
constexpr std::array DEVICES { "null", "zero", "full", "random", "urandom", "tty", "ptmx", "pts", "shm", "fd",
    "stdin", "stdout", "stderr" };

bool Fail(std::string& problem, const char* what)
{
    problem = Format("%s: %s", what, ErrorText(errno).c_str());
    return false;
}

bool WriteFile(const char* path, const std::string& text)
{
    const UniqueFd fd(open(path, O_WRONLY | O_CLOEXEC));
    return fd.IsValid() && write(fd.Get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

// Inside we are root; files that we make outside are still our own.
bool MapUser(uid_t user, gid_t group, std::string& problem)
{
    (void)WriteFile("/proc/self/setgroups", "deny"); // older kernels have no such file
    if (!WriteFile("/proc/self/uid_map", Format("0 %u 1", user))
        || !WriteFile("/proc/self/gid_map", Format("0 %u 1", group)))
        return Fail(problem, "user namespace");
    return true;
}

bool Unshare(std::string& problem)
{
    const uid_t user = geteuid();
    const gid_t group = getegid();
    if (unshare(CLONE_NEWNS | CLONE_NEWNET) != 0) {
        if (unshare(CLONE_NEWUSER | CLONE_NEWNS | CLONE_NEWNET) != 0)
            return Fail(problem, "namespaces");
        if (!MapUser(user, group, problem))
            return false;
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return Fail(problem, "mounts of its own");
    return true;
}

// A device of the machine's, held while its folder is covered.
struct Device {
    const char* name;
    UniqueFd fd;
    std::optional<std::string> link; // it is a link to there
    bool isFolder;
};

std::vector<Device> HoldDevices()
{
    std::vector<Device> held;
    for (const char* const name : DEVICES) {
        const std::string path = std::string("/dev/") + name;
        std::array<char, PATH_MAX> target;
        const ssize_t length = readlink(path.c_str(), target.data(), target.size());
        Device device { name, UniqueFd(open(path.c_str(), O_PATH | O_CLOEXEC | O_NOFOLLOW)), std::nullopt,
            false };
        struct stat status {};
        if (!device.fd.IsValid() || fstat(device.fd.Get(), &status) != 0)
            continue;
        device.isFolder = S_ISDIR(status.st_mode);
        if (length > 0)
            device.link.emplace(target.data(), static_cast<size_t>(length));
        held.push_back(std::move(device));
    }
    return held;
}

bool PutDevice(const Device& device)
{
    const std::string path = std::string("/dev/") + device.name;
    if (device.link)
        return symlink(device.link->c_str(), path.c_str()) == 0;
    if (device.isFolder ? mkdir(path.c_str(), 0755) != 0
                        : !UniqueFd(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644)).IsValid())
        return false;
    const std::string held = Format("/proc/self/fd/%d", device.fd.Get());
    return mount(held.c_str(), path.c_str(), nullptr, MS_BIND | (device.isFolder ? MS_REC : 0), nullptr) == 0;
}

bool CoverDevices(std::string& problem)
{
    const std::vector<Device> held = HoldDevices();
    if (mount("tmpfs", "/dev", "tmpfs", MS_NOSUID, "mode=755") != 0)
        return Fail(problem, "a /dev of its own");
    for (const Device& device : held)
        if (!PutDevice(device) && strcmp(device.name, "null") == 0)
            return Fail(problem, "/dev/null");
    return true;
}

// /var/run is usually a link to /run.
bool CoverRun(std::string& problem)
{
    std::string covered;
    for (const char* const folder : { "/run", "/var/run" }) {
        std::array<char, PATH_MAX> path;
        if (realpath(folder, path.data()) == nullptr || covered == path.data())
            continue;
        covered = path.data();
        if (mount("tmpfs", path.data(), "tmpfs", MS_NOSUID, "mode=755") != 0)
            return Fail(problem, "a /run of its own");
    }
    return true;
}

bool RaiseLoopback(std::string& problem)
{
    const UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq request {};
    std::strncpy(request.ifr_name, "lo", sizeof(request.ifr_name) - 1);
    request.ifr_flags = IFF_UP | IFF_RUNNING;
    if (ioctl(socket.Get(), SIOCSIFFLAGS, &request) != 0)
        return Fail(problem, "a loopback of its own");
    return true;
}

bool Enter(std::string& problem)
{
    return Unshare(problem) && CoverRun(problem) && CoverDevices(problem) && RaiseLoopback(problem);
}

// The whole of it in a process that ends with it.
bool Rehearse(std::string& problem)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return Fail(problem, "pipe");
    const UniqueFd reading(ends[0]);
    UniqueFd writing(ends[1]);
    const pid_t child = fork();
    if (child < 0)
        return Fail(problem, "process");
    if (child == 0) {
        const bool isIn = Enter(problem);
        (void)!write(writing.Get(), problem.data(), problem.size());
        _exit(isIn ? 0 : 1);
    }
    writing.Reset();
    std::array<char, 512> text;
    const ssize_t length = read(reading.Get(), text.data(), text.size());
    int status = 0;
    (void)waitpid(child, &status, 0);
    if (length > 0)
        problem.assign(text.data(), static_cast<size_t>(length));
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

} // namespace

bool EnterSandbox(std::string& problem)
{
    return Rehearse(problem) && Enter(problem);
}

} // namespace demo
