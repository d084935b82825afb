#include "arqctl/proxy/route_lookup.h"

#include <arpa/inet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "base/unique_fd.h"

namespace arqctl {

namespace {

struct RouteQuestion {
    nlmsghdr header;
    rtmsg route;
    rtattr attribute;
    uint32_t addressNet;
};
static_assert(sizeof(RouteQuestion) == sizeof(nlmsghdr) + sizeof(rtmsg) + sizeof(rtattr) + sizeof(uint32_t));

RouteQuestion QuestionFor(uint32_t address)
{
    constexpr unsigned char WHOLE_ADDRESS = 32; // bits
    RouteQuestion question {};
    question.header.nlmsg_len = sizeof(question);
    question.header.nlmsg_type = RTM_GETROUTE;
    question.header.nlmsg_flags = NLM_F_REQUEST;
    question.route.rtm_family = AF_INET;
    question.route.rtm_dst_len = WHOLE_ADDRESS;
    question.attribute.rta_type = RTA_DST;
    question.attribute.rta_len = sizeof(rtattr) + sizeof(uint32_t);
    question.addressNet = htonl(address);
    return question;
}

template <typename Record>
bool Take(const char*& bytes, size_t& size, Record& record)
{
    if (size < sizeof(record))
        return false;
    std::memcpy(&record, bytes, sizeof(record));
    bytes += sizeof(record);
    size -= sizeof(record);
    return true;
}

std::string InterfaceName(unsigned index)
{
    std::array<char, IF_NAMESIZE> name {};
    return if_indextoname(index, name.data()) != nullptr ? std::string(name.data()) : std::string();
}

// The attributes behind a route: each with its length in front, filled up to four bytes.
std::string OutputInterface(const char* bytes, size_t size)
{
    rtattr attribute {};
    while (Take(bytes, size, attribute)) {
        const size_t length = attribute.rta_len - sizeof(attribute);
        if (attribute.rta_len < sizeof(attribute) || length > size)
            break;
        unsigned index = 0;
        if (attribute.rta_type == RTA_OIF && length == sizeof(index)) {
            std::memcpy(&index, bytes, sizeof(index));
            return InterfaceName(index);
        }
        const size_t step = std::min(size, (length + 3) / 4 * 4);
        bytes += step;
        size -= step;
    }
    return {};
}

std::optional<std::string> ReadReply(const char* bytes, size_t size)
{
    nlmsghdr header {};
    if (!Take(bytes, size, header))
        return std::nullopt;
    if (header.nlmsg_type == NLMSG_ERROR) {
        nlmsgerr error {};
        if (!Take(bytes, size, error))
            return std::nullopt;
        const bool isNoRoute = error.error == -ENETUNREACH || error.error == -EHOSTUNREACH
            || error.error == -EACCES || error.error == -EINVAL || error.error == -ENETDOWN;
        return isNoRoute ? std::optional<std::string>("") : std::nullopt;
    }
    rtmsg route {};
    if (header.nlmsg_type != RTM_NEWROUTE || !Take(bytes, size, route))
        return std::nullopt;
    return OutputInterface(bytes, size);
}

} // namespace

std::optional<std::string> RouteInterface(uint32_t address)
{
    const UniqueFd socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    if (!socket.IsValid())
        return std::nullopt;
    const timeval patience { 1, 0 }; // the kernel answers before send returns
    (void)setsockopt(socket.Get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
    const RouteQuestion question = QuestionFor(address);
    sockaddr_nl kernel {};
    kernel.nl_family = AF_NETLINK;
    if (sendto(socket.Get(), &question, sizeof(question), 0, reinterpret_cast<const sockaddr*>(&kernel),
            sizeof(kernel))
        < 0)
        return std::nullopt;
    std::array<char, 4096> reply;
    const ssize_t length = recv(socket.Get(), reply.data(), reply.size(), 0);
    return length < 0 ? std::nullopt : ReadReply(reply.data(), static_cast<size_t>(length));
}

} // namespace arqctl
