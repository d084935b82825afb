#include "reading_outlet.h"

#include <sys/socket.h>

void ReadingOutlet::Open(int32_t count, uint16_t port)
{
    m_receivers[port] = std::make_unique<Receivers>(count, port);
}

int64_t ReadingOutlet::Delivered(int32_t payloadBytes)
{
    for (const auto& [port, receivers] : m_receivers) {
        (void)receivers->Drain(
            [&](const Arrival& arrival) { m_nDelivered += arrival.length == payloadBytes ? 1 : 0; });
    }
    return m_nDelivered;
}

void ReadingOutlet::Ping(int32_t count, uint16_t port, uint16_t pingPort)
{
    static constexpr char NOTHING = 0;
    const sockaddr_in to = LoopbackAddress(pingPort);
    for (int32_t i = 0; i < count; ++i) {
        (void)sendto(At(port).Socket(i), &NOTHING, 0, 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to));
    }
}
