#include "demo/folder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace demo {

bool Folder::Open(const std::string& path)
{
    m_path = path;
    if (mkdir(path.c_str(), 0777) != 0 && errno != EEXIST)
        return false;
    m_fd.Reset(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return m_fd.IsValid() && faccessat(m_fd.Get(), ".", W_OK, 0) == 0;
}

bool Folder::Write(const std::string& name, std::span<const uint8_t> bytes) const
{
    const UniqueFd file(openat(m_fd.Get(), name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    while (file.IsValid() && !bytes.empty()) {
        const ssize_t count = write(file.Get(), bytes.data(), bytes.size());
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0) {
            (void)unlinkat(m_fd.Get(), name.c_str(), 0);
            return false;
        }
        bytes = bytes.subspan(static_cast<size_t>(count));
    }
    return file.IsValid();
}

bool Folder::Write(const std::string& name, const std::string& text) const
{
    return Write(name, { reinterpret_cast<const uint8_t*>(text.data()), text.size() });
}

} // namespace demo
