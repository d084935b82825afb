#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

// A process under test, started without output and killed with this object.
class Child {
public:
    // Runs `arguments` (the first is the path). Gives up when that fails.
    explicit Child(const std::vector<std::string>& arguments);
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child();

    // Time all its threads have had a processor, in nanoseconds: user and kernel.
    int64_t CpuNs() const;

    // Memory in real use, in KiB.
    int64_t ResidentKib() const;

    bool IsAlive() const;

    // Waits until it ends by itself; its exit status, -1 when a signal ended it.
    int WaitForExit() const;

    pid_t Pid() const { return m_nPid; }

private:
    pid_t m_nPid;
};

// Ends the benchmark, and on the way the processes that it started, once RunBenchmark catches it: a figure
// that cannot be taken is no figure.
[[noreturn]] void GiveUp(const std::string& why);

// Runs body() and returns the exit status: 0, or 1 after a message when something in it gave up.
int RunBenchmark(const std::function<void()>& body);

// From now on SIGINT, SIGTERM and SIGHUP end the benchmark by a GiveUp at the next StopIfAsked.
void StopOnSignals();

// Gives up when a signal has asked for it. Does nothing on any thread but main's.
void StopIfAsked();
