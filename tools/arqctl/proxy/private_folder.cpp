#include "arqctl/proxy/private_folder.h"

#include <dirent.h>
#include <fcntl.h>
#include <glob.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace arqctl {

namespace {

constexpr size_t LONGEST_BASE = 60; // a socket's path has room for 107 bytes
constexpr time_t OLD_SECONDS = 60; // a younger one may not have its lock yet

std::string FolderPattern(const char* ending)
{
    const char* base = getenv("TMPDIR");
    if (!base || *base != '/' || strlen(base) > LONGEST_BASE)
        base = "/tmp";
    return std::string(base) + "/arqctl-" + ending;
}

UniqueFd OpenFolder(const char* path)
{
    return UniqueFd(open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

bool TakeLock(const UniqueFd& folder)
{
    return folder.IsValid() && flock(folder.Get(), LOCK_EX | LOCK_NB) == 0;
}

// Removes a folder of plain files and sockets, by the descriptor that holds its lock.
void RemoveFolder(const std::string& path, const UniqueFd& folder)
{
    DIR* const listing = opendir(path.c_str());
    while (const dirent* const entry = listing ? readdir(listing) : nullptr)
        (void)unlinkat(folder.Get(), entry->d_name, 0);
    if (listing)
        (void)closedir(listing);
    (void)rmdir(path.c_str());
}

bool IsOldAndOurs(const UniqueFd& folder)
{
    struct stat facts {};
    return folder.IsValid() && fstat(folder.Get(), &facts) == 0 && facts.st_uid == geteuid()
        && facts.st_mtime + OLD_SECONDS < time(nullptr);
}

void RemoveLeftFolders()
{
    glob_t found {};
    // NOLINTNEXTLINE(concurrency-mt-unsafe): without a tilde no user is looked up
    if (glob(FolderPattern("??????").c_str(), GLOB_NOSORT, nullptr, &found) == 0)
        for (size_t i = 0; i < found.gl_pathc; ++i) {
            const UniqueFd folder = OpenFolder(found.gl_pathv[i]);
            if (IsOldAndOurs(folder) && TakeLock(folder))
                RemoveFolder(found.gl_pathv[i], folder);
        }
    globfree(&found);
}

} // namespace

int PrivateFolder::Make()
{
    if (!m_path.empty())
        return 0;
    RemoveLeftFolders();
    std::string path = FolderPattern("XXXXXX");
    if (!mkdtemp(path.data())) // 0700
        return errno;
    m_lock = OpenFolder(path.c_str());
    if (!TakeLock(m_lock)) {
        (void)rmdir(path.c_str());
        return EWOULDBLOCK;
    }
    m_path = path;
    return 0;
}

void PrivateFolder::Remove()
{
    if (!m_path.empty())
        RemoveFolder(m_path, m_lock);
    m_path.clear();
}

} // namespace arqctl
