#pragma once

#include <atomic>
#include <cstdint>
#include <span>
#include <string>

#include "base/unique_fd.h"

namespace arqrx {

// A file, pipe or terminal that is written to with patience: a full pipe is waited for, but not longer than until
// GiveUpAt. Threads: one thread writes, any sets the time to give up.
class StreamFile {
public:
    // Makes the file; an old one is emptied by the first Write, so that a start that fails spoils no recording. A
    // named pipe needs its reader first. False with the reason in `problem`.
    bool Open(const std::string& path, std::string& problem);
    // A descriptor of somebody else's, which stays open.
    void Borrow(int fd);

    // All of it, in order. False with the reason in `problem`: a failure, or the time to give up.
    bool Write(std::span<const uint8_t> bytes, std::string& problem);
    // Microseconds of the monotonic clock.
    void GiveUpAt(int64_t timeUs) { m_giveUpAtUs.store(timeUs); }

private:
    void FindOutKind();
    bool EmptyOnce();
    bool WaitForRoom(std::string& problem) const;

    UniqueFd m_owned;
    int m_nFd = -1;
    bool m_bToEmpty = false; // an old file of ours
    bool m_bRegular = false; // a write to it never waits for a reader
    std::atomic<int64_t> m_giveUpAtUs { INT64_MAX };
};

} // namespace arqrx
