#include "main/write_all.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>

namespace {

constexpr size_t PIECE_BYTES = 4096; // PIPE_BUF
constexpr int NO_LIMIT = -1;

size_t PieceBytes(std::string_view text)
{
    if (text.size() <= PIECE_BYTES)
        return text.size();
    const size_t lineEnd = text.rfind('\n', PIECE_BYTES - 1);
    return lineEnd == std::string_view::npos ? PIECE_BYTES : lineEnd + 1;
}

// After a write that failed: true when it is worth another try, at once or when
// the descriptor takes bytes again.
bool CanTryAgain(int fd)
{
    if (errno == EINTR)
        return true;
    if (errno != EAGAIN)
        return false;
    pollfd wanted { fd, POLLOUT, 0 };
    (void)poll(&wanted, 1, NO_LIMIT);
    return true;
}

} // namespace

void WriteAll(int fd, std::string_view text, PlainWord<uint32_t>& progress)
{
    while (!text.empty()) {
        const ssize_t count = write(fd, text.data(), PieceBytes(text));
        if (count > 0)
            text.remove_prefix(static_cast<size_t>(count));
        else if (count == 0 || !CanTryAgain(fd))
            return;
        progress.Add(1);
    }
}
