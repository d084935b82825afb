#include "kernel_model/socket_kernel.h"

#include <linux/sock_diag.h>
#include <sys/time.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace kernel_model {

thread_local SocketKernel* SocketKernel::s_pCurrent = nullptr;

namespace {

// A system call moves this many messages at most.
constexpr unsigned MOST_MESSAGES = 1024;

Fate FateOf(const Attempt& attempt, int error, bool isPending)
{
    if (error == 0)
        return Fate::Left;
    if (attempt.message.IsTrain() || attempt.index >= 0 || isPending)
        return Fate::MustComeAgain;
    if (attempt.IsNamed() && attempt.socket.peer)
        return Fate::MayComeAgain;
    if (attempt.IsNamed())
        return attempt.mayWait ? Fate::Lost : Fate::MustComeAgain;
    return error == EAGAIN ? Fate::MayComeAgain : Fate::MustComeAgain;
}

template <typename Value>
int Tell(const Value& value, void* to, socklen_t* bytes)
{
    *bytes = std::min<socklen_t>(*bytes, sizeof(value));
    std::memcpy(to, &value, *bytes);
    return 0;
}

// Fills the message's pieces one after the other; how much of the datagram there was room for.
size_t Scatter(const ReceivedDatagram& datagram, const msghdr& header)
{
    size_t at = 0;
    for (size_t i = 0; i < header.msg_iovlen && at < datagram.bytes.size(); ++i) {
        const size_t some = std::min(header.msg_iov[i].iov_len, datagram.bytes.size() - at);
        if (some != 0)
            std::memcpy(header.msg_iov[i].iov_base, datagram.bytes.data() + at, some);
        at += some;
    }
    return at;
}

void TellSource(const ReceivedDatagram& datagram, msghdr& header)
{
    sockaddr_in source {};
    source.sin_family = AF_INET;
    source.sin_addr.s_addr = datagram.addressNet;
    source.sin_port = datagram.portNet;
    if (header.msg_name != nullptr)
        std::memcpy(header.msg_name, &source, std::min<size_t>(header.msg_namelen, sizeof(source)));
    header.msg_namelen = sizeof(source);
    header.msg_controllen = 0;
}

} // namespace

bool SocketKernel::Put(uint16_t port, const ReceivedDatagram& datagram)
{
    Socket* socket = sockets.FindReceiver(port, datagram.addressNet, datagram.portNet);
    if (socket != nullptr)
        socket->received.push_back(datagram);
    return socket != nullptr;
}

int SocketKernel::Make()
{
    const int fd = sockets.Make();
    OnDescriptor(Descriptor::Made, fd, -1);
    return fd;
}

int SocketKernel::Duplicate(int fd, int wanted)
{
    const int duplicate = sockets.Duplicate(fd, wanted);
    if (duplicate < 0 && wanted >= 0)
        OnMisuse("an open descriptor is duplicated to the place of an open one");
    OnDescriptor(Descriptor::Duplicated, duplicate, fd);
    return duplicate;
}

int SocketKernel::Close(int fd)
{
    OnDescriptor(Descriptor::Closed, fd, -1);
    const int result = sockets.Close(fd);
    if (result != 0)
        OnMisuse("no descriptor is closed twice");
    return result;
}

// A socket that is not connected is shut down too, whatever the call says.
int SocketKernel::ShutDown(int fd)
{
    OnDescriptor(Descriptor::Shut, fd, -1);
    Socket* socket = sockets.Find(fd);
    if (socket == nullptr) {
        OnMisuse("an open socket is shut down");
        return -EBADF;
    }
    socket->isShut = true;
    return socket->peer ? 0 : -ENOTCONN;
}

int SocketKernel::SetOption(int fd, int level, int name, const void* value, socklen_t bytes)
{
    Socket* socket = sockets.Find(fd);
    if (socket == nullptr)
        return -EBADF;
    if (level != SOL_SOCKET)
        return 0;
    if (name == SO_RCVTIMEO) {
        timeval time {};
        std::memcpy(&time, value, std::min<size_t>(bytes, sizeof(time)));
        const int64_t ms = int64_t { time.tv_sec } * 1000 + time.tv_usec / 1000;
        socket->receiveTimeoutMs = ms != 0 ? ms : Socket::FOR_EVER;
        return 0;
    }
    int number = 0;
    std::memcpy(&number, value, std::min<size_t>(bytes, sizeof(number)));
    if (name == SO_REUSEADDR)
        socket->mayShare = number != 0;
    if (name == SO_NO_CHECK)
        socket->hasNoChecksums = number != 0;
    return 0;
}

int SocketKernel::GetOption(int fd, int level, int name, void* value, socklen_t* bytes)
{
    constexpr int RECEIVE_BUFFER_BYTES = 212992;
    Socket* socket = sockets.Find(fd);
    if (socket == nullptr)
        return -EBADF;
    if (level != SOL_SOCKET)
        return -ENOPROTOOPT;
    if (name == SO_ERROR)
        return Tell(std::exchange(socket->pendingError, 0), value, bytes);
    if (name == SO_RCVBUF)
        return Tell(RECEIVE_BUFFER_BYTES, value, bytes);
    if (name != SO_MEMINFO || WaitingBytes(*socket) < 0)
        return -ENOPROTOOPT;
    uint32_t info[SK_MEMINFO_VARS] = {};
    info[SK_MEMINFO_RMEM_ALLOC] = static_cast<uint32_t>(WaitingBytes(*socket));
    return Tell(info, value, bytes);
}

// In the kernel's order: what is pending comes before what it says to a train.
int SocketKernel::Judge(Socket& socket, const Attempt& attempt, bool* isPending)
{
    *isPending = socket.pendingError != 0;
    if (*isPending)
        return std::exchange(socket.pendingError, 0);
    if (socket.isShut) {
        OnMisuse("nothing is sent to a stream that was cut off");
        return EPIPE;
    }
    if (sockets.routedSourceNet == 0)
        return ENETUNREACH;
    // The address that the socket was connected with is not this machine's any more.
    if (socket.peer && !attempt.message.choosesSource && socket.sourceNet != sockets.routedSourceNet)
        return EINVAL;
    const int error = attempt.message.JudgeTrain(mtuBytes, tooLongError, socket.hasNoChecksums);
    return error != 0 ? error : Refuse(attempt);
}

ssize_t SocketKernel::Send(int fd, const msghdr& header, int flags, int index)
{
    Socket* socket = sockets.Find(fd);
    if (socket == nullptr) {
        OnMisuse("a datagram is sent from an open socket");
        return -EBADF;
    }
    int error = m_message.Read(header);
    if (!m_message.destination && !socket->peer)
        return -EDESTADDRREQ;
    sockets.GivePort(*socket);
    const Attempt attempt { fd, *socket, m_message.destination ? *m_message.destination : *socket->peer,
        m_message, (flags & MSG_DONTWAIT) == 0, index };
    bool isPending = false;
    if (error == 0)
        error = Judge(*socket, attempt, &isPending);
    OnMessage(attempt, FateOf(attempt, error, isPending));
    return error != 0 ? -error : static_cast<ssize_t>(m_message.bytes.size());
}

// Why the first message that fails does so is told only where it is the first of all.
int SocketKernel::SendMany(int fd, mmsghdr* headers, unsigned count, int flags)
{
    count = std::min(count, MOST_MESSAGES);
    for (unsigned i = 0; i < count; ++i) {
        const ssize_t sent = Send(fd, headers[i].msg_hdr, flags, static_cast<int>(i));
        if (sent < 0)
            return i != 0 ? static_cast<int>(i) : static_cast<int>(sent);
        headers[i].msg_len = static_cast<unsigned>(sent);
    }
    return static_cast<int>(count);
}

ssize_t SocketKernel::Receive(int fd, msghdr& header, int flags)
{
    Socket* socket = sockets.Find(fd);
    if (socket != nullptr && !HasNews(*socket) && (flags & MSG_DONTWAIT) == 0) {
        WaitForDatagrams(socket->receiveTimeoutMs);
        socket = sockets.Find(fd);
    }
    if (socket == nullptr)
        return -EBADF;
    if (socket->pendingError != 0)
        return -std::exchange(socket->pendingError, 0);
    if (socket->received.empty())
        return -EAGAIN;
    const ReceivedDatagram datagram = std::move(socket->received.front());
    socket->received.pop_front();
    const size_t count = Scatter(datagram, header);
    header.msg_flags = count < datagram.bytes.size() ? MSG_TRUNC : 0;
    TellSource(datagram, header);
    OnTaken(*socket, datagram, static_cast<uint8_t*>(header.msg_iov[0].iov_base), count,
        header.msg_iov[0].iov_len);
    return static_cast<ssize_t>(count);
}

// An error behind the first datagram is told by the next call.
int SocketKernel::ReceiveMany(int fd, mmsghdr* headers, unsigned count, int flags)
{
    const int rest = (flags & MSG_WAITFORONE) != 0 ? flags | MSG_DONTWAIT : flags;
    count = std::min(count, MOST_MESSAGES);
    for (unsigned i = 0; i < count; ++i) {
        const ssize_t got = Receive(fd, headers[i].msg_hdr, i == 0 ? flags : rest);
        if (got < 0 && i == 0)
            return static_cast<int>(got);
        if (got < 0) {
            Socket* socket = sockets.Find(fd);
            if (got != -EAGAIN && socket != nullptr)
                socket->pendingError = static_cast<int>(-got);
            return static_cast<int>(i);
        }
        headers[i].msg_len = static_cast<unsigned>(got);
    }
    return static_cast<int>(count);
}

int SocketKernel::MarkReady(pollfd* wanted, nfds_t count) const
{
    int ready = 0;
    for (nfds_t i = 0; i < count; ++i) {
        wanted[i].revents = 0;
        if (wanted[i].fd < 0)
            continue;
        const Socket* socket = sockets.Find(wanted[i].fd);
        if (socket == nullptr) {
            wanted[i].revents = POLLNVAL;
        } else {
            const int in = socket->received.empty() ? 0 : POLLIN & wanted[i].events;
            const int error = socket->pendingError != 0 ? POLLERR : 0;
            wanted[i].revents = static_cast<short>(in | error);
        }
        ready += wanted[i].revents != 0 ? 1 : 0;
    }
    return ready;
}

int SocketKernel::Poll(pollfd* wanted, nfds_t count, int timeoutMs)
{
    const int ready = MarkReady(wanted, count);
    if (ready != 0 || timeoutMs == 0)
        return ready;
    WaitForDatagrams(timeoutMs);
    return MarkReady(wanted, count);
}

} // namespace kernel_model
