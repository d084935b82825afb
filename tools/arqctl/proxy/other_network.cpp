#include "arqctl/proxy/other_network.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>

#include <string>

namespace arqctl {

namespace {

std::string PathOf(int pid, const char* what)
{
    return "/proc/" + std::to_string(pid) + "/" + what;
}

bool AreSame(const std::string& one, const std::string& other)
{
    struct stat first {};
    struct stat second {};
    return stat(one.c_str(), &first) == 0 && stat(other.c_str(), &second) == 0
        && first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

} // namespace

bool SharesNetwork(int pid)
{
    return AreSame(PathOf(pid, "ns/net"), "/proc/self/ns/net");
}

bool SharesDevices(int pid)
{
    return AreSame(PathOf(pid, "root/dev"), "/dev");
}

OtherNetwork::OtherNetwork(int pid)
{
    if (pid == 0 || SharesNetwork(pid))
        return;
    const UniqueFd other(open(PathOf(pid, "ns/net").c_str(), O_RDONLY | O_CLOEXEC));
    m_own.Reset(open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC));
    m_isThere = other.IsValid() && m_own.IsValid() && setns(other.Get(), CLONE_NEWNET) == 0;
    if (!m_isThere)
        m_own.Reset();
}

OtherNetwork::~OtherNetwork()
{
    if (m_own.IsValid())
        (void)setns(m_own.Get(), CLONE_NEWNET);
}

} // namespace arqctl
