#pragma once

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "base/unique_fd.h"

namespace test_support {

// The first descriptor that the sets of select have no room for.
constexpr int FIRST_HIGH_DESCRIPTOR = 1024;

// Lets the process open as many descriptors as it ever may.
inline void AllowHighDescriptors()
{
    rlimit limit {};
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    limit.rlim_cur = limit.rlim_max;
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
}

// A second descriptor, from 1024 on, of what `fd` stands for.
inline UniqueFd DuplicateHigh(int fd)
{
    AllowHighDescriptors();
    UniqueFd high(fcntl(fd, F_DUPFD, FIRST_HIGH_DESCRIPTOR));
    EXPECT_GE(high.Get(), FIRST_HIGH_DESCRIPTOR);
    return high;
}

// While this object lives, whatever the process opens gets a descriptor from 1024 on.
class NoLowDescriptor {
public:
    NoLowDescriptor()
    {
        AllowHighDescriptors();
        for (;;) {
            UniqueFd next(fcntl(STDIN_FILENO, F_DUPFD, 0));
            if (next.Get() < 0 || next.Get() >= FIRST_HIGH_DESCRIPTOR)
                break;
            m_taken.push_back(std::move(next));
        }
    }

private:
    std::vector<UniqueFd> m_taken;
};

} // namespace test_support
