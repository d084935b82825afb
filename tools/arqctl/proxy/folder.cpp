#include "arqctl/proxy/folder.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <memory>

namespace arqctl {

namespace {

struct CloseFolder {
    void operator()(DIR* folder) const { (void)closedir(folder); }
};

} // namespace

std::vector<std::string> NamesIn(const std::string& folder)
{
    std::vector<std::string> names;
    const std::unique_ptr<DIR, CloseFolder> open(opendir(folder.c_str()));
    if (!open)
        return names;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): a folder of our own
    while (const dirent* entry = readdir(open.get()))
        names.emplace_back(entry->d_name);
    return names;
}

std::optional<std::string> LinkText(const std::string& path)
{
    std::array<char, 1024> text;
    const ssize_t length = readlink(path.c_str(), text.data(), text.size());
    if (length < 0)
        return std::nullopt;
    return std::string(text.data(), static_cast<size_t>(length));
}

bool IsSameFile(const std::string& one, const std::string& other)
{
    struct stat first {};
    struct stat second {};
    return stat(one.c_str(), &first) == 0 && stat(other.c_str(), &second) == 0
        && first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

} // namespace arqctl
