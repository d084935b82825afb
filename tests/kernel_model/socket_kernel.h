#pragma once

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>

#include "kernel_model/sockets.h"
#include "kernel_model/udp_message.h"

namespace kernel_model {

// What becomes of a datagram that somebody tries to send.
enum class Fate {
    Left,
    Lost, // refused by a call for it alone: the caller knows why, and that is the end of it
    MayComeAgain, // likewise on a connected socket, where the error may be another datagram's
    // Refused together with others, or without a word why, or in place of an earlier one, or by a call that must not
    // wait: nothing may be lost by it.
    MustComeAgain,
};

// What happens to a descriptor; a duplicate has that of another one.
enum class Descriptor { Made, Duplicated, Closed, Shut };

// One message on its way out.
struct Attempt {
    int fd;
    const Socket& socket;
    sockaddr_in destination;
    const UdpMessage& message;
    bool mayWait; // without MSG_DONTWAIT
    int index; // in its sendmmsg; below 0: a call of its own

    bool IsNamed() const { return message.destination.has_value(); }
    // Whether it may be another try: from a connected socket that names the receiver, from any other one it waits.
    bool MayBeSecond() const { return socket.peer ? IsNamed() : mayWait; }
};

// The socket calls of a kernel without a network, with the semantics of Linux. Who derives from it decides what is
// refused, sees all that leaves, and lets time pass. socket_calls.cpp leads the C library's calls here while it is
// the current one. What fails returns the error number below 0.
//
// Threads: the one that made it.
class SocketKernel {
public:
    SocketKernel() = default;
    SocketKernel(const SocketKernel&) = delete;
    SocketKernel& operator=(const SocketKernel&) = delete;
    virtual ~SocketKernel() = default;

    // Null while calls go to the system.
    static SocketKernel* Current() { return s_pCurrent; }
    static void SetCurrent(SocketKernel* kernel) { s_pCurrent = kernel; }

    // A datagram comes in on that port (host order). False when nobody has it.
    bool Put(uint16_t port, const ReceivedDatagram& datagram);

    int Make();
    int Duplicate(int fd, int wanted = -1);
    int Close(int fd);
    int ShutDown(int fd);
    int SetOption(int fd, int level, int name, const void* value, socklen_t bytes);
    int GetOption(int fd, int level, int name, void* value, socklen_t* bytes);
    ssize_t Send(int fd, const msghdr& header, int flags, int index = -1);
    int SendMany(int fd, mmsghdr* headers, unsigned count, int flags);
    ssize_t Receive(int fd, msghdr& header, int flags);
    int ReceiveMany(int fd, mmsghdr* headers, unsigned count, int flags);
    int Poll(pollfd* wanted, nfds_t count, int timeoutMs);

    Sockets sockets;
    // The device that all leave by.
    size_t mtuBytes = 1500;
    int tooLongError = EMSGSIZE; // for trains of pieces that are too long for it; older kernels: EINVAL

protected:
    // 0, or the error number that the kernel has for this message.
    virtual int Refuse(const Attempt& attempt) = 0;
    // What became of the message, and so of each of its datagrams.
    virtual void OnMessage(const Attempt& attempt, Fate fate) = 0;

    // Somebody gets a datagram: `count` bytes of it are in a buffer with that room.
    virtual void OnTaken(const Socket& /*socket*/, const ReceivedDatagram& /*datagram*/, uint8_t* /*buffer*/,
        size_t /*count*/, size_t /*room*/)
    {
    }
    // Lets the caller wait until a datagram has come to any socket, or until the time (below 0: no time) is over.
    virtual void WaitForDatagrams(int64_t ms) = 0;

    virtual void OnDescriptor(Descriptor /*change*/, int /*fd*/, int /*other*/) {}
    // Kernel memory that waiting datagrams take up; below 0 when it is not told.
    virtual int64_t WaitingBytes(const Socket& /*socket*/) { return -1; }
    // What nobody must do, in words of what everybody does. Does not come back.
    virtual void OnMisuse(const char* promise) = 0;

private:
    int Judge(Socket& socket, const Attempt& attempt, bool* isPending);
    bool HasNews(const Socket& socket) const { return !socket.received.empty() || socket.pendingError != 0; }
    int MarkReady(pollfd* wanted, nfds_t count) const;

    static thread_local SocketKernel* s_pCurrent;
    UdpMessage m_message;
};

} // namespace kernel_model
