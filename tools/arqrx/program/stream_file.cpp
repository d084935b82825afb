#include "arqrx/program/stream_file.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "common/clock.h"

namespace arqrx {

namespace {

constexpr mode_t NEW_FILE_MODE = 0644;
constexpr size_t PIPE_PIECE_BYTES = 4096; // a pipe that has room at all takes so much without waiting
constexpr int LOOK_AROUND_MS = 100;

std::string Reason(int error)
{
    return std::error_code(error, std::generic_category()).message();
}

bool Fail(std::string& problem, const std::string& why)
{
    problem = why;
    return false;
}

std::string OpenProblem(int error)
{
    switch (error) {
    case ENXIO:
        return "nobody reads the pipe; start its reader first";
    case ENOENT:
        return Reason(error) + "; make the folder first";
    case EISDIR:
        return Reason(error) + "; name a file in it";
    case EACCES:
    case EROFS:
        return Reason(error) + "; name a file that this user may write";
    default:
        return Reason(error);
    }
}

std::string WriteProblem(int error)
{
    if (error == EPIPE)
        return "its reader has gone";
    return Reason(error);
}

} // namespace

bool StreamFile::Open(const std::string& path, std::string& problem)
{
    // Without waiting: a named pipe without a reader would stop us here for good.
    m_owned.Reset(open(path.c_str(), O_WRONLY | O_CREAT | O_NONBLOCK | O_CLOEXEC, NEW_FILE_MODE));
    if (!m_owned.IsValid())
        return Fail(problem, OpenProblem(errno));
    m_nFd = m_owned.Get();
    FindOutKind();
    m_bToEmpty = m_bRegular;
    return true;
}

void StreamFile::Borrow(int fd)
{
    m_owned.Reset();
    m_nFd = fd;
    FindOutKind();
}

void StreamFile::FindOutKind()
{
    struct stat status {};
    m_bRegular = fstat(m_nFd, &status) == 0 && S_ISREG(status.st_mode);
}

bool StreamFile::WaitForRoom(std::string& problem) const
{
    while (common::NowUs() < m_giveUpAtUs.load()) {
        pollfd waiting { m_nFd, POLLOUT, 0 };
        if (poll(&waiting, 1, LOOK_AROUND_MS) > 0)
            return true; // an error is what the write then tells
    }
    return Fail(problem, "its reader is too slow");
}

bool StreamFile::EmptyOnce()
{
    if (!m_bToEmpty)
        return true;
    m_bToEmpty = false;
    return ftruncate(m_nFd, 0) == 0;
}

bool StreamFile::Write(std::span<const uint8_t> bytes, std::string& problem)
{
    if (!EmptyOnce())
        return Fail(problem, WriteProblem(errno));
    while (!bytes.empty()) {
        if (!m_bRegular && !WaitForRoom(problem))
            return false;
        const size_t piece = m_bRegular ? bytes.size() : std::min(bytes.size(), PIPE_PIECE_BYTES);
        const ssize_t written = write(m_nFd, bytes.data(), piece);
        if (written > 0)
            bytes = bytes.subspan(static_cast<size_t>(written));
        else if (written < 0 && errno != EINTR && errno != EAGAIN)
            return Fail(problem, WriteProblem(errno));
    }
    return true;
}

} // namespace arqrx
