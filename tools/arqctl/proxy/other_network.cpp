#include "arqctl/proxy/other_network.h"

#include <fcntl.h>
#include <sched.h>

#include <string>

#include "arqctl/proxy/folder.h"

namespace arqctl {

namespace {

std::string PathOf(int pid, const char* what)
{
    return "/proc/" + std::to_string(pid) + "/" + what;
}

} // namespace

bool SharesNetwork(int pid)
{
    return IsSameFile(PathOf(pid, "ns/net"), "/proc/self/ns/net");
}

bool SharesDevices(int pid)
{
    return IsSameFile(PathOf(pid, "root/dev"), "/dev");
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
