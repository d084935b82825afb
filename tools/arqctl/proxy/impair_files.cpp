#include "arqctl/proxy/impair_files.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "arqctl/core/loss_settings.h"
#include "common/clock.h"

namespace arqctl {

namespace {

constexpr int FILE_TURN_MS = 20;

std::string PathIn(const std::string& folder, int instance, const char* end)
{
    return folder + "tx_proxy" + std::to_string(instance) + end;
}

Trouble FileTrouble(const std::string& what, const std::string& path, int error)
{
    return { what + " " + path + ": " + strerrordesc_np(error),
        "run this as the proxy's user (root, as a rule)" };
}

// Where a link to the file points; the path itself without a file.
std::string RealPath(const std::string& path)
{
    char resolved[PATH_MAX];
    return realpath(path.c_str(), resolved) != nullptr ? resolved : path;
}

// 0, or the errno.
int WriteAll(int fd, const std::string& text)
{
    for (size_t done = 0; done < text.size();) {
        const ssize_t count = write(fd, text.data() + done, text.size() - done);
        if (count < 0 && errno != EINTR)
            return errno;
        done += count > 0 ? static_cast<size_t>(count) : 0;
    }
    return 0;
}

// Rights and owner of the file that a new one takes the place of; readable for all without one.
void TakeRightsOf(const std::string& path, int fd)
{
    struct stat status {};
    const bool isThere = stat(path.c_str(), &status) == 0;
    (void)fchmod(fd, isThere ? status.st_mode & 07777 : 0644);
    if (isThere)
        (void)!fchown(fd, status.st_uid, status.st_gid);
}

} // namespace

LocalImpairFiles::LocalImpairFiles(const std::string& folder, int instance)
    : m_toggle(PathIn(folder, instance, ".imp")),
      m_settings(PathIn(folder, instance, ".imp.conf")),
      m_lockPath(PathIn(folder, instance, ".imp.lock"))
{
}

// The file stays: removing a lock file would let two hold it, each its own.
Trouble LocalImpairFiles::Lock(int64_t patienceUs)
{
    m_lock.Reset(open(m_lockPath.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0644));
    if (!m_lock.IsValid())
        return FileTrouble("cannot make", m_lockPath, errno);
    const int64_t endUs = common::NowUs() + patienceUs;
    while (flock(m_lock.Get(), LOCK_EX | LOCK_NB) != 0) {
        if (common::NowUs() >= endUs)
            return { "another arqctl is switching the deliberate loss of this proxy",
                "wait until it is done" };
        (void)poll(nullptr, 0, FILE_TURN_MS);
    }
    return {};
}

bool LocalImpairFiles::WaitUntilGone(int64_t patienceUs) const
{
    const int64_t endUs = common::NowUs() + patienceUs;
    while (access(m_toggle.c_str(), F_OK) == 0) {
        if (common::NowUs() >= endUs)
            return false;
        (void)poll(nullptr, 0, FILE_TURN_MS);
    }
    return true;
}

Trouble LocalImpairFiles::AwaitNoToggle(int64_t patienceUs)
{
    if (WaitUntilGone(patienceUs))
        return {};
    return { m_toggle + " is there and no proxy removes it",
        "see with 'arqctl instances' that it runs; then remove the file" };
}

Trouble LocalImpairFiles::ReadSettings(std::string& text)
{
    text.clear();
    const UniqueFd file(open(m_settings.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!file.IsValid())
        return errno == ENOENT ? Trouble {} : FileTrouble("cannot read", m_settings, errno);
    struct stat status {};
    if (fstat(file.Get(), &status) != 0 || !S_ISREG(status.st_mode))
        return { m_settings + " is no file", "move it out of the way" };
    char bytes[4096];
    ssize_t count = 0;
    while (text.size() <= LARGEST_LOSS_FILE && (count = read(file.Get(), bytes, sizeof(bytes))) > 0)
        text.append(bytes, static_cast<size_t>(count));
    if (text.size() > LARGEST_LOSS_FILE)
        return { m_settings + " is too large for the proxy", "move it out of the way" };
    return count < 0 ? FileTrouble("cannot read", m_settings, errno) : Trouble {};
}

Trouble LocalImpairFiles::WriteSettings(const std::string& text)
{
    const std::string path = RealPath(m_settings);
    std::string temporary = path + ".XXXXXX";
    const UniqueFd file(mkostemp(temporary.data(), O_CLOEXEC));
    if (!file.IsValid())
        return FileTrouble("cannot write beside", path, errno);
    TakeRightsOf(path, file.Get());
    int error = WriteAll(file.Get(), text);
    if (error == 0 && rename(temporary.c_str(), path.c_str()) != 0)
        error = errno;
    if (error == 0)
        return {};
    (void)unlink(temporary.c_str());
    return FileTrouble("cannot write", path, error);
}

Toggled LocalImpairFiles::Toggle(int64_t patienceUs, Trouble& trouble)
{
    const UniqueFd file(open(m_toggle.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
    if (!file.IsValid()) {
        trouble = FileTrouble("cannot make", m_toggle, errno);
        return Toggled::Failed;
    }
    // One that stays would switch when nobody expects it any more. Gone at the last moment, the proxy took it.
    if (WaitUntilGone(patienceUs) || (unlink(m_toggle.c_str()) != 0 && errno == ENOENT))
        return Toggled::Taken;
    trouble = { "the proxy did not take " + m_toggle + ", which is removed again",
        "see with 'arqctl instances' that it runs here, and that it may write there" };
    return Toggled::NotTaken;
}

} // namespace arqctl
