#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "base/unique_fd.h"

namespace arqctl {

// Another program that works for this one. It ends with this object, and with the thread that started it, even a killed
// one. It has a terminal of its own, that is none: Ctrl-C is not for it, and it can ask nobody.
//
// Threads: one thread's own; that thread lives as long as the program is wanted.
class ChildProcess {
public:
    ChildProcess() = default;
    ~ChildProcess() { End(); }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Looks words[0] up in PATH. 0, or the errno of what failed: ENOENT when there is no such program.
    int Start(const std::vector<std::string>& words);

    // Its standard input, output and error: our ends of pipes, which never wait.
    UniqueFd input;
    UniqueFd output;
    UniqueFd errors;

    bool IsRunning(); // and takes over its status
    // Once it runs no more: its exit status, 128 and the signal's number when one ended it, -1 when it never ran.
    int Status() const { return m_nStatus; }
    // SIGTERM, and SIGKILL when that is not enough within a second.
    void End();

private:
    pid_t m_nPid = 0; // 0: none that is not reaped
    int m_nStatus = -1;
};

} // namespace arqctl
