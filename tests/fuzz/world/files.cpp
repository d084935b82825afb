#include "fuzz/world/files.h"

#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "fuzz/world/require.h"

namespace {

size_t s_settingsBytes = 0;

bool EndsWith(std::string_view path, std::string_view end)
{
    return path.size() >= end.size() && path.substr(path.size() - end.size()) == end;
}

} // namespace

int Files::Descriptor()
{
    static const int fd = memfd_create("settings", MFD_CLOEXEC);
    Require(fd >= 0, "there is a file in memory");
    return fd;
}

size_t Files::Size()
{
    return s_settingsBytes;
}

void Files::WriteSettings(std::string_view text)
{
    s_settingsBytes = text.size();
    Require(ftruncate(Descriptor(), static_cast<off_t>(text.size())) == 0, "the file can be cut");
    Require(pwrite(Descriptor(), text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()),
        "the file can be written");
}

bool Files::IsSettings(const char* path)
{
    return EndsWith(path, ".imp.conf");
}

bool* Files::Find(const char* path)
{
    if (IsSettings(path))
        return &s_bHasSettings;
    if (EndsWith(path, ".imp"))
        return &s_bHasToggle;
    return EndsWith(path, ".clear") ? &s_bHasClearRequest : nullptr;
}
