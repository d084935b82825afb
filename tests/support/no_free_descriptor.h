#pragma once

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "base/unique_fd.h"

namespace test_support {

// Lets the process open no further descriptor.
class NoFreeDescriptor {
public:
    NoFreeDescriptor()
    {
        EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &m_saved), 0);
        const UniqueFd next(fcntl(STDIN_FILENO, F_DUPFD, 0));
        rlimit limit = m_saved;
        limit.rlim_cur = static_cast<rlim_t>(next.Get());
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    }
    NoFreeDescriptor(const NoFreeDescriptor&) = delete;
    NoFreeDescriptor& operator=(const NoFreeDescriptor&) = delete;
    ~NoFreeDescriptor() { (void)setrlimit(RLIMIT_NOFILE, &m_saved); }

private:
    rlimit m_saved {};
};

} // namespace test_support
