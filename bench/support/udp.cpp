#include "udp.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <sstream>
#include <string>

#include "child.h"

namespace {

const sockaddr* Generic(const sockaddr_in& address)
{
    return reinterpret_cast<const sockaddr*>(&address);
}

bool IsFree(uint16_t port)
{
    const UniqueFd probe(socket(AF_INET, SOCK_DGRAM, 0));
    sockaddr_in any = LoopbackAddress(port);
    any.sin_addr.s_addr = htonl(INADDR_ANY);
    return bind(probe.Get(), Generic(any), sizeof(any)) == 0;
}

int64_t ArrivalNs(msghdr& message)
{
    for (cmsghdr* item = CMSG_FIRSTHDR(&message); item != nullptr; item = CMSG_NXTHDR(&message, item)) {
        if (item->cmsg_level == SOL_SOCKET && item->cmsg_type == SCM_TIMESTAMPNS) {
            timespec stamp {};
            std::memcpy(&stamp, CMSG_DATA(item), sizeof(stamp));
            return static_cast<int64_t>(stamp.tv_sec) * 1000000000 + stamp.tv_nsec;
        }
    }
    GiveUp("this kernel gives no arrival times");
}

} // namespace

sockaddr_in ReceiverAddress(int32_t index, uint16_t port)
{
    constexpr uint32_t FIRST = 0x7F000002;
    sockaddr_in address = LoopbackAddress(port);
    address.sin_addr.s_addr = htonl(FIRST + static_cast<uint32_t>(index));
    return address;
}

sockaddr_in LoopbackAddress(uint16_t port)
{
    sockaddr_in address {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

std::vector<sockaddr_in> ReadAddresses(const std::string& list, uint16_t port)
{
    std::vector<sockaddr_in> addresses;
    std::istringstream words(list);
    for (std::string word; std::getline(words, word, ',');) {
        sockaddr_in address = LoopbackAddress(port);
        if (inet_pton(AF_INET, word.c_str(), &address.sin_addr) != 1)
            GiveUp("no address: " + word);
        addresses.push_back(address);
    }
    return addresses;
}

uint16_t FreePort()
{
    constexpr uint16_t FIRST = 11000;
    constexpr uint16_t COUNT = 3000;
    static auto s_next = static_cast<uint16_t>(getpid() % COUNT); // so that two runs do not meet
    for (uint16_t tried = 0; tried < COUNT; ++tried) {
        s_next = static_cast<uint16_t>((s_next + 1) % COUNT);
        const auto port = static_cast<uint16_t>(FIRST + s_next);
        if (IsFree(port))
            return port;
    }
    GiveUp("no free UDP port");
}

int FreeInstance()
{
    constexpr int LOCK_PORT_BASE = 32123;
    constexpr int FIRST = 561; // the system tests use the numbers below
    constexpr int LAST = 640;
    for (int instance = FIRST; instance <= LAST; ++instance) {
        if (IsFree(static_cast<uint16_t>(LOCK_PORT_BASE + instance)))
            return instance;
    }
    GiveUp("no free instance number");
}

UniqueFd BoundSocket(const sockaddr_in& address)
{
    UniqueFd bound(socket(AF_INET, SOCK_DGRAM, 0));
    const int on = 1;
    (void)setsockopt(bound.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    if (bind(bound.Get(), Generic(address), sizeof(address)) != 0)
        GiveUp("cannot bind port " + std::to_string(ntohs(address.sin_port)));
    return bound;
}

Receivers::Receivers(int32_t count, uint16_t port) : m_usPort(port)
{
    for (int32_t i = 0; i < count; ++i) {
        UniqueFd receiver = BoundSocket(ReceiverAddress(i, port));
        const int on = 1;
        (void)setsockopt(receiver.Get(), SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof(on));
        m_sockets.push_back(std::move(receiver));
    }
}

int32_t Receivers::Drain(const Visitor& visit)
{
    int32_t total = 0;
    for (int32_t i = 0; i < Count(); ++i)
        total += DrainOne(i, visit);
    return total;
}

int32_t Receivers::DrainOne(int32_t receiver, const Visitor& visit)
{
    constexpr int BATCH = 32;
    constexpr size_t HEAD_BYTES = sizeof(MediaHeader) + sizeof(int64_t);
    static MediaDatagram s_datagrams[BATCH];
    alignas(cmsghdr) static char s_control[BATCH][CMSG_SPACE(sizeof(timespec))];
    mmsghdr messages[BATCH] {};
    iovec pieces[BATCH];
    int32_t total = 0;
    for (;;) {
        for (int i = 0; i < BATCH; ++i) {
            pieces[i] = { &s_datagrams[i], HEAD_BYTES };
            msghdr& message = messages[i].msg_hdr;
            message = {};
            message.msg_iov = &pieces[i];
            message.msg_iovlen = 1;
            message.msg_control = s_control[i];
            message.msg_controllen = sizeof(s_control[i]);
        }
        const int got = recvmmsg(Socket(receiver), messages, BATCH, MSG_DONTWAIT | MSG_TRUNC, nullptr);
        for (int i = 0; i < got; ++i) {
            visit({ receiver, s_datagrams[i], static_cast<int32_t>(messages[i].msg_len),
                ArrivalNs(messages[i].msg_hdr) });
        }
        if (got > 0)
            total += got;
        if (got < BATCH)
            return total;
    }
}
