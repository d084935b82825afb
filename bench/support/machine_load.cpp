#include "machine_load.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>

#include "figures.h"

namespace {

// Time in which the processors did nothing, all together, since the machine was started.
int64_t IdleNs()
{
    constexpr int64_t NS_PER_S = 1000000000;
    constexpr int IDLE = 3; // user nice system idle iowait ...
    std::ifstream stat("/proc/stat");
    std::string word;
    int64_t fields[IDLE + 2] {};
    stat >> word;
    for (int64_t& field : fields)
        stat >> field;
    return (fields[IDLE] + fields[IDLE + 1]) * (NS_PER_S / sysconf(_SC_CLK_TCK));
}

} // namespace

int64_t ProcessCpuNs(pid_t pid)
{
    int64_t total = 0;
    std::error_code gone;
    for (const auto& task :
        std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task", gone)) {
        int64_t onCpu = 0;
        std::ifstream(task.path() / "schedstat") >> onCpu; // its first field; an ended thread has none
        total += onCpu;
    }
    return total;
}

void LoadMeter::Begin()
{
    m_nBeginNs = WallNs();
    m_nIdleNs = IdleNs();
    m_nOursNs = OursNs();
}

double LoadMeter::Others() const
{
    const auto tookNs = static_cast<double>(WallNs() - m_nBeginNs);
    const auto idleNs = static_cast<double>(IdleNs() - m_nIdleNs);
    const auto oursNs = static_cast<double>(OursNs() - m_nOursNs);
    const auto processors = static_cast<double>(sysconf(_SC_NPROCESSORS_ONLN));
    return std::max(0.0, processors - (idleNs + oursNs) / tookNs);
}

int64_t LoadMeter::OursNs() const
{
    int64_t total = ProcessCpuNs(getpid());
    for (const pid_t pid : m_ours)
        total += ProcessCpuNs(pid);
    return total;
}
