#pragma once

#include <unistd.h>

// Owner of one file descriptor: closes it on destruction. Empty when the value is -1.
// Threads: none of its own; a descriptor shared by threads needs an owner that outlives them all.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : m_nFd(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : m_nFd(other.Release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept
    {
        Reset(other.Release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { Reset(); }

    // The descriptor, -1 when empty. Stays owned here.
    int Get() const { return m_nFd; }
    bool IsValid() const { return m_nFd >= 0; }

    // Gives the descriptor to the caller, who must close it.
    int Release()
    {
        const int fd = m_nFd;
        m_nFd = -1;
        return fd;
    }

    // Closes what is held and takes over fd (-1: nothing).
    void Reset(int fd = -1)
    {
        if (m_nFd >= 0 && m_nFd != fd)
            (void)::close(m_nFd);
        m_nFd = fd;
    }

private:
    int m_nFd = -1;
};
