// As kernel_calls.cpp, for the calls about files.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>

#include "fuzz/world/files.h"
#include "fuzz/world/kernel.h"
#include "support/wrapped_calls.h"

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names

namespace {

bool* Find(const char* path)
{
    return Kernel::Current() != nullptr ? Files::Find(path) : nullptr;
}

int NoSuchFile()
{
    errno = ENOENT;
    return -1;
}

} // namespace

int __wrap_access(const char* path, int mode)
{
    const bool* isThere = Find(path);
    if (isThere == nullptr)
        return __real_access(path, mode);
    return *isThere ? 0 : NoSuchFile();
}

int __wrap_unlink(const char* path)
{
    bool* isThere = Find(path);
    if (isThere == nullptr)
        return __real_unlink(path);
    if (!*isThere)
        return NoSuchFile();
    *isThere = false;
    return 0;
}

int __wrap_stat(const char* path, struct stat* status)
{
    const bool* isThere = Find(path);
    if (isThere == nullptr)
        return __real_stat(path, status);
    if (!*isThere)
        return NoSuchFile();
    *status = {};
    status->st_size = std::max(0L, static_cast<long>(Files::Size()) + Files::s_nStatError);
    return 0;
}

int __wrap_open(const char* path, int flags, ...)
{
    const bool* isThere = Find(path);
    if (isThere != nullptr && !*isThere)
        return NoSuchFile();
    if (isThere != nullptr) {
        char again[64] = ""; // a description of its own: read from the start
        (void)snprintf(again, sizeof(again), "/proc/self/fd/%d", Files::Descriptor());
        return __real_open(again, flags);
    }
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return __real_open(path, flags, mode);
}
// NOLINTEND(bugprone-reserved-identifier)
