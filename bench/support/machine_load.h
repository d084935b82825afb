#pragma once

#include <sys/types.h>

#include <cstdint>
#include <vector>

// Processor time of all threads of a process so far, user and kernel, in nanoseconds.
int64_t ProcessCpuNs(pid_t pid);

// What else the machine did in a stretch of time: the figures of a busy machine are thrown away.
class LoadMeter {
public:
    // The processes whose time is not "else"; the calling one is always among them.
    explicit LoadMeter(std::vector<pid_t> ours) : m_ours(std::move(ours)) {}

    // Begins a stretch.
    void Begin();

    // Processors' worth of other use since Begin: 0 on a quiet machine, 1 for one processor kept busy. What
    // another machine takes from this virtual one is in it, and the work for interrupts.
    double Others() const;

private:
    int64_t OursNs() const;

    std::vector<pid_t> m_ours;
    int64_t m_nBeginNs = 0;
    int64_t m_nIdleNs = 0;
    int64_t m_nOursNs = 0;
};
