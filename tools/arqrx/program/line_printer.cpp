#include "arqrx/program/line_printer.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>

namespace arqrx {

void LinePrinter::Print(const std::string& text, int patienceMs)
{
    size_t done = 0;
    while (!m_bClosed && done < text.size()) {
        pollfd waiting { m_nFd, POLLOUT, 0 };
        if (poll(&waiting, 1, patienceMs) <= 0)
            return;
        // Up to the line's end, which a pipe with room for anything has room for: no line is longer than 4096 bytes.
        const size_t lineEnd = text.find('\n', done);
        const size_t end = lineEnd == std::string::npos ? text.size() : lineEnd + 1;
        const ssize_t written = write(m_nFd, text.data() + done, end - done);
        if (written >= 0)
            done += static_cast<size_t>(written);
        else if (errno != EINTR && errno != EAGAIN)
            m_bClosed = true;
    }
}

} // namespace arqrx
