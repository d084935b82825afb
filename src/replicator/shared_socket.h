#pragma once

#include <atomic>

#include "base/unique_fd.h"

// One holder's share of a socket that streams and listeners use together. The descriptor is closed with
// its last share.
//
// Threads: one share belongs to one holder; the count behind it may be changed by several threads at once.
class SharedSocket {
public:
    SharedSocket() = default;

    // Takes over fd (-1: nothing) as its first holder. When memory is short fd is closed and nothing held.
    explicit SharedSocket(int fd);
    SharedSocket(const SharedSocket& other);
    SharedSocket(SharedSocket&& other) noexcept;
    SharedSocket& operator=(SharedSocket other) noexcept; // gives up the share held before
    ~SharedSocket();

    // The descriptor, or -1.
    int Get() const;
    bool IsValid() const { return Get() >= 0; }
    bool IsShared() const; // there is another holder

private:
    struct Counted {
        UniqueFd fd;
        std::atomic<int> holders { 1 };
    };

    Counted* m_pCounted = nullptr; // freed by its last holder
};
