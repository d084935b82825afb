#pragma once

#include <cstdint>
#include <string>

namespace arqrx {

// Prints lines to a descriptor of somebody else's, and never waits for its reader: lines that it does not take in time
// are left out. Threads: one thread's own.
class LinePrinter {
public:
    explicit LinePrinter(int fd) : m_nFd(fd) {}

    // Prints `text` if there is room within `patienceMs`.
    void Print(const std::string& text, int patienceMs = 0);
    // The reader has gone: nothing is printed any more.
    bool IsClosed() const { return m_bClosed; }

private:
    const int m_nFd;
    bool m_bClosed = false;
};

} // namespace arqrx
