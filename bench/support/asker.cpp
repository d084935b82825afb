#include "asker.h"

#include <sys/socket.h>

#include "child.h"
#include "request_datagram.h"
#include "udp.h"

Asker::Asker(const Outlet& outlet, int32_t count, uint16_t requestPort)
    : m_requests(LoopbackAddress(requestPort))
{
    for (int32_t i = 0; i < count; ++i) {
        UniqueFd asking(socket(AF_INET, SOCK_DGRAM, 0));
        const int on = 1;
        (void)setsockopt(
            asking.Get(), IPPROTO_IP, IP_TRANSPARENT, &on, sizeof(on)); // for addresses of others
        sockaddr_in local {};
        local.sin_family = AF_INET;
        local.sin_addr = outlet.AddressOf(i);
        if (bind(asking.Get(), reinterpret_cast<const sockaddr*>(&local), sizeof(local)) != 0)
            GiveUp("no socket at a receiver's address");
        m_sockets.push_back(std::move(asking));
    }
}

void Asker::Ask(int32_t index, uint16_t first, uint16_t count)
{
    const std::vector<uint8_t> request = RequestDatagram(first, count);
    (void)sendto(m_sockets[static_cast<size_t>(index)].Get(), request.data(), request.size(), 0,
        reinterpret_cast<const sockaddr*>(&m_requests), sizeof(m_requests));
}
