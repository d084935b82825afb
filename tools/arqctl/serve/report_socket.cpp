#include "arqctl/serve/report_socket.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace arqctl {

bool ReportSocket::IsAddress(const std::string& addressAndPort)
{
    common::Endpoint endpoint;
    return common::ParseEndpoint(addressAndPort, endpoint);
}

bool ReportSocket::Open(const std::string& addressAndPort, std::string& problem)
{
    common::Endpoint endpoint;
    if (!common::ParseEndpoint(addressAndPort, endpoint)) {
        problem = "'" + addressAndPort + "' is not ADDRESS:PORT";
        return false;
    }
    const sockaddr_in address = common::ToSockaddr(endpoint);
    m_fd.Reset(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!m_fd.IsValid()
        || bind(m_fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        problem = "cannot take reports on UDP " + addressAndPort + ": " + strerror(errno);
        return false;
    }
    m_event.reset(event_new(m_pBase, m_fd.Get(), EV_READ | EV_PERSIST, Readable, this));
    return event_add(m_event.get(), nullptr) == 0;
}

void ReportSocket::Readable(int /*fd*/, short /*what*/, void* self)
{
    int count = 0;
    while (count < MOST_TOGETHER && static_cast<ReportSocket*>(self)->ReadOne())
        count++;
}

bool ReportSocket::ReadOne()
{
    char bytes[LONGEST_DATAGRAM];
    sockaddr_in source {};
    socklen_t length = sizeof(source);
    const ssize_t count
        = recvfrom(m_fd.Get(), bytes, sizeof(bytes), 0, reinterpret_cast<sockaddr*>(&source), &length);
    if (count < 0)
        return false;
    m_handler({ bytes, static_cast<size_t>(count) }, common::FromSockaddr(source));
    return true;
}

} // namespace arqctl
