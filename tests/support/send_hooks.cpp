#include "support/send_hooks.h"

#include <netinet/in.h>
#include <netinet/udp.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <utility>

#include "support/wrapped_calls.h"

namespace {

using test_support::Bytes;
using test_support::SendCall;
using test_support::SendKind;
using test_support::SentMessage;
using test_support::WatchedSends;

thread_local WatchedSends* current = nullptr;

void ReadControl(const msghdr& header, SentMessage& message)
{
    auto* writable = const_cast<msghdr*>(&header); // the macros' interface
    for (cmsghdr* control = CMSG_FIRSTHDR(writable); control != nullptr;
         control = CMSG_NXTHDR(writable, control)) {
        if (control->cmsg_level == SOL_UDP && control->cmsg_type == UDP_SEGMENT) {
            uint16_t bytes = 0;
            std::memcpy(&bytes, CMSG_DATA(control), sizeof(bytes));
            message.segmentBytes = bytes;
        }
        in_pktinfo info {};
        if (control->cmsg_level == IPPROTO_IP && control->cmsg_type == IP_PKTINFO) {
            std::memcpy(&info, CMSG_DATA(control), sizeof(info));
            message.isRouted = info.ipi_spec_dst.s_addr == 0 && info.ipi_ifindex == 0;
        }
    }
}

SentMessage Named(Bytes bytes, const void* address, socklen_t addressBytes)
{
    SentMessage message { .bytes = std::move(bytes) };
    message.isNamed = address != nullptr && addressBytes == sizeof(sockaddr_in);
    if (message.isNamed)
        message.port = ntohs(static_cast<const sockaddr_in*>(address)->sin_port);
    return message;
}

SentMessage Read(const msghdr& header)
{
    Bytes bytes;
    for (size_t i = 0; i < header.msg_iovlen; ++i) {
        const auto* start = static_cast<const uint8_t*>(header.msg_iov[i].iov_base);
        bytes.insert(bytes.end(), start, start + header.msg_iov[i].iov_len);
    }
    SentMessage message = Named(std::move(bytes), header.msg_name, header.msg_namelen);
    ReadControl(header, message);
    return message;
}

SentMessage Read(const void* data, size_t length, const void* address, socklen_t addressBytes)
{
    const auto* start = static_cast<const uint8_t*>(data);
    return Named(Bytes(start, start + length), address, addressBytes);
}

// 0 when the call may go to the kernel, or -1 with errno set.
int Refused(SendCall call)
{
    const WatchedSends::Verdict verdict = current->OnCall(std::move(call));
    if (verdict.error == 0)
        return 0;
    errno = verdict.error;
    return -1;
}

} // namespace

ssize_t __wrap_send(int fd, const void* data, size_t length, int flags)
{
    if (current != nullptr && Refused({ SendKind::Send, fd, flags, { Read(data, length, nullptr, 0) } }) != 0)
        return -1;
    return __real_send(fd, data, length, flags);
}

ssize_t __wrap_sendto(
    int fd, const void* data, size_t length, int flags, const sockaddr* address, socklen_t addressBytes)
{
    if (current != nullptr
        && Refused({ SendKind::SendTo, fd, flags, { Read(data, length, address, addressBytes) } }) != 0)
        return -1;
    return __real_sendto(fd, data, length, flags, address, addressBytes);
}

ssize_t __wrap_sendmsg(int fd, const msghdr* header, int flags)
{
    if (current != nullptr && Refused({ SendKind::SendMsg, fd, flags, { Read(*header) } }) != 0)
        return -1;
    return __real_sendmsg(fd, header, flags);
}

int __wrap_sendmmsg(int fd, mmsghdr* headers, unsigned count, int flags)
{
    if (current == nullptr)
        return __real_sendmmsg(fd, headers, count, flags);
    SendCall call { SendKind::SendMmsg, fd, flags, {} };
    for (unsigned i = 0; i < count; ++i)
        call.messages.push_back(Read(headers[i].msg_hdr));
    const WatchedSends::Verdict verdict = current->OnCall(std::move(call));
    if (verdict.passing != 0 || verdict.error == 0)
        return __real_sendmmsg(fd, headers, static_cast<unsigned>(verdict.passing), flags);
    errno = verdict.error;
    return -1;
}

namespace test_support {

WatchedSends::WatchedSends(Refusal refusal) : m_refusal(std::move(refusal))
{
    current = this;
}

WatchedSends::~WatchedSends()
{
    current = nullptr;
}

WatchedSends::Verdict WatchedSends::OnCall(SendCall call)
{
    for (SentMessage& message : call.messages)
        message.mayWait = (call.flags & MSG_DONTWAIT) == 0;
    m_calls.push_back(std::move(call));
    const std::vector<SentMessage>& messages = m_calls.back().messages;
    for (size_t i = 0; i < messages.size() && m_refusal; ++i) {
        const int error = m_refusal(messages[i]);
        if (error != 0)
            return { i, error };
    }
    return { messages.size(), 0 };
}

std::vector<size_t> WatchedSends::MessagesOfEach() const
{
    std::vector<size_t> counts;
    for (const SendCall& call : m_calls)
        counts.push_back(call.messages.size());
    return counts;
}

std::vector<size_t> WatchedSends::DatagramsOfEach(size_t index) const
{
    std::vector<size_t> counts;
    for (const SentMessage& message : m_calls.at(index).messages) {
        const size_t piece = message.segmentBytes;
        counts.push_back(piece == 0 ? 1 : (message.bytes.size() + piece - 1) / piece);
    }
    return counts;
}

WatchedSends::Refusal RefuseFirst(int count, int error)
{
    return [count, error](const SentMessage&) mutable { return count-- > 0 ? error : 0; };
}

WatchedSends::Refusal RefuseTrains(int error, int count)
{
    return [count, error](const SentMessage& message) mutable {
        return message.segmentBytes != 0 && count-- > 0 ? error : 0;
    };
}

} // namespace test_support
