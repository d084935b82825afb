#include "floor_sender.h"

#include <netinet/udp.h>

#include <algorithm>
#include <cstring>

uint32_t FloorMessage::Build(FloorPacket* const* packets, uint32_t count)
{
    constexpr size_t MOST_BYTES = 65507; // of a train
    const size_t size = packets[0]->length;
    size_t sum = 0;
    uint32_t taken = 0;
    while (taken < count && packets[taken]->length <= size) {
        FloorPacket& packet = *packets[taken];
        sum += packet.length;
        if (sum > MOST_BYTES)
            break;
        m_pieces[taken++] = { packet.data, packet.length };
        if (packet.length < size)
            break;
    }
    m_nPieces = taken;
    m_usSize = static_cast<uint16_t>(size);
    return taken;
}

msghdr FloorMessage::To(const sockaddr_in* destination)
{
    msghdr message {};
    message.msg_name = const_cast<sockaddr_in*>(destination);
    message.msg_namelen = destination == nullptr ? 0 : sizeof(*destination);
    message.msg_iov = m_pieces;
    message.msg_iovlen = m_nPieces;
    if (m_nPieces < 2)
        return message;
    message.msg_control = m_control;
    message.msg_controllen = sizeof(m_control);
    cmsghdr* item = CMSG_FIRSTHDR(&message);
    item->cmsg_level = IPPROTO_UDP;
    item->cmsg_type = UDP_SEGMENT;
    item->cmsg_len = CMSG_LEN(sizeof(m_usSize));
    std::memcpy(CMSG_DATA(item), &m_usSize, sizeof(m_usSize));
    return message;
}

FloorSender::FloorSender(const FloorSettings& settings)
    : m_settings(settings),
      m_messages(settings.destinations.size())
{
    const size_t sockets = settings.connected ? settings.destinations.size() : 1;
    for (size_t i = 0; i < sockets; ++i) {
        m_sockets.emplace_back(socket(AF_INET, SOCK_DGRAM, 0));
        const int fd = m_sockets.back().Get();
        if (settings.sendBuffer != 0)
            (void)setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &settings.sendBuffer, sizeof(settings.sendBuffer));
        if (settings.connected)
            (void)connect(
                fd, reinterpret_cast<const sockaddr*>(&settings.destinations[i]), sizeof(sockaddr_in));
    }
}

void FloorSender::Send(FloorPacket* const* packets, uint32_t count)
{
    for (uint32_t sent = 0; sent < count;) {
        sent += m_message.Build(packets + sent, std::min(count - sent, m_settings.train));
        if (m_settings.together)
            SendTogether();
        else
            SendEach();
    }
}

void FloorSender::SendEach()
{
    for (size_t i = 0; i < m_settings.destinations.size(); ++i) {
        const sockaddr_in* destination = m_settings.connected ? nullptr : &m_settings.destinations[i];
        const int fd = m_sockets[m_settings.connected ? i : 0].Get();
        if (m_message.IsTrain()) {
            const msghdr message = m_message.To(destination);
            (void)sendmsg(fd, &message, 0);
        } else {
            (void)sendto(fd, m_message.Only().iov_base, m_message.Only().iov_len, 0,
                reinterpret_cast<const sockaddr*>(destination),
                destination == nullptr ? 0 : sizeof(*destination));
        }
    }
}

void FloorSender::SendTogether()
{
    for (size_t i = 0; i < m_messages.size(); ++i)
        m_messages[i].msg_hdr = m_message.To(&m_settings.destinations[i]);
    (void)sendmmsg(m_sockets[0].Get(), m_messages.data(), static_cast<unsigned>(m_messages.size()), 0);
}
