#include "arqctl/proxy/exchange.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "common/clock.h"

namespace arqctl {

namespace {

constexpr int64_t RETRY_US
    = 10 * common::US_PER_MS; // a full backlog has room when the client before has been served

Failure ReasonOf(int error)
{
    switch (error) {
    case ENOENT:
    case ENOTDIR:
        return Failure::NoSocket;
    case ECONNREFUSED:
    case ENOTSOCK:
        return Failure::NotListening;
    case EACCES:
    case EPERM:
        return Failure::NotAllowed;
    default:
        return Failure::CutOff;
    }
}

int PeerOf(int fd)
{
    ucred peer {};
    socklen_t length = sizeof(peer);
    return getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 ? peer.pid : 0;
}

} // namespace

Exchange::Exchange(std::string socketPath, std::string request, int64_t nowUs, int64_t patienceUs)
    : m_path(std::move(socketPath)),
      m_request(std::move(request)),
      m_deadlineUs(nowUs + patienceUs),
      m_wakeUs(nowUs)
{
}

short Exchange::Events() const
{
    return m_nSent < m_request.size() ? POLLOUT : POLLIN;
}

void Exchange::Proceed(int64_t nowUs)
{
    if (m_isOver)
        return;
    m_wakeUs = m_deadlineUs;
    if (!m_fd.IsValid())
        Connect(nowUs);
    if (m_fd.IsValid() && m_nSent < m_request.size())
        Send();
    if (m_fd.IsValid() && m_nSent == m_request.size())
        Read();
    if (!m_isOver && nowUs >= m_deadlineUs)
        End(Failure::NoAnswer);
}

void Exchange::Connect(int64_t nowUs)
{
    sockaddr_un address {};
    address.sun_family = AF_UNIX;
    if (m_path.size() >= sizeof(address.sun_path))
        return End(Failure::NoSocket);
    m_path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!fd.IsValid())
        return End(Failure::NoDescriptor);
    if (connect(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
        m_nPeerPid = PeerOf(fd.Get());
        m_fd = std::move(fd);
    } else if (errno == EAGAIN || errno == EINTR) {
        m_wakeUs = std::min(m_deadlineUs, nowUs + RETRY_US);
    } else {
        End(ReasonOf(errno));
    }
}

void Exchange::Send()
{
    const ssize_t sent
        = send(m_fd.Get(), m_request.data() + m_nSent, m_request.size() - m_nSent, MSG_NOSIGNAL);
    if (sent < 0 && errno != EAGAIN && errno != EINTR)
        return End(Failure::CutOff);
    m_nSent += static_cast<size_t>(std::max<ssize_t>(sent, 0));
    if (m_nSent == m_request.size() && shutdown(m_fd.Get(), SHUT_WR) != 0)
        End(Failure::CutOff);
}

void Exchange::Read()
{
    char bytes[4096];
    ssize_t count = 0;
    while ((count = read(m_fd.Get(), bytes, sizeof(bytes))) > 0) {
        m_reply.append(bytes, static_cast<size_t>(count));
        if (m_reply.size() > LONGEST_REPLY)
            return End(Failure::TooLong);
    }
    if (count == 0)
        End(Failure::None);
    else if (errno != EAGAIN && errno != EINTR)
        End(Failure::CutOff);
}

void Exchange::End(Failure failure)
{
    m_failure = failure;
    m_isOver = true;
    m_fd.Reset();
}

} // namespace arqctl
