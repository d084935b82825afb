#pragma once

#include <map>
#include <memory>

#include "outlet.h"
#include "udp.h"

// Receivers on loopback that read what they get, for measurements that need each datagram's time of arrival.
class ReadingOutlet : public Outlet {
public:
    void Open(int32_t count, uint16_t port) override;
    in_addr AddressOf(int32_t index) const override { return ReceiverAddress(index, 0).sin_addr; }
    int64_t Delivered(int32_t payloadBytes) override;
    void Ping(int32_t count, uint16_t port, uint16_t pingPort) override;
    std::string Description() const override { return "loopback: sockets that are read"; }

    // The receivers that Open made on `port`.
    Receivers& At(uint16_t port) { return *m_receivers.at(port); }

private:
    std::map<uint16_t, std::unique_ptr<Receivers>> m_receivers;
    int64_t m_nDelivered = 0;
};
