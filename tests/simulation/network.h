#pragma once

#include <cstdint>
#include <vector>

#include "simulation/checker.h"
#include "simulation/link_model.h"
#include "simulation/machine.h"
#include "simulation/stream_book.h"

namespace simulation {

// Who gets what arrives at a receiver.
class Mailbox {
public:
    Mailbox() = default;
    Mailbox(const Mailbox&) = delete;
    Mailbox& operator=(const Mailbox&) = delete;
    virtual ~Mailbox() = default;

    virtual void OnArrival(const Delivery& delivery) = 0;
};

// The links between the proxy and its receivers, two for each receiver, and what is on its way.
class Network : public Action {
public:
    Network(Machine& machine, const Config& config, const std::vector<ReceiverIdentity>& receivers,
        Mailbox& mailbox);

    void SendDown(const Delivery& delivery);
    // From a receiver's port to one of the proxy's (both host order).
    void SendUp(int receiver, uint16_t fromPort, uint16_t toPort, std::vector<uint8_t> bytes);

    void EndFaults();
    // Nothing is made or lost but by the links; false at the end while something is still on its way.
    void CheckBalance() const;
    uint64_t Sent() const { return m_nSent; }

    void OnEvent(uint64_t argument) override;

private:
    enum Direction : uint64_t { DOWN, UP };

    struct Message {
        Direction direction;
        Delivery delivery;
        uint16_t toPort;
        kernel_model::ReceivedDatagram datagram;
    };

    void Send(LinkModel& link, int receiver, const Message& message);
    void Arrive(const Message& message);

    Machine& m_machine;
    const std::vector<ReceiverIdentity>& m_receivers;
    Mailbox& m_mailbox;
    std::vector<LinkModel> m_downlinks;
    std::vector<LinkModel> m_uplinks;
    std::vector<Message> m_messages;
    std::vector<size_t> m_free; // places of messages that have arrived
    uint64_t m_nSent = 0;
    uint64_t m_nLost = 0;
    uint64_t m_nDoubled = 0;
    uint64_t m_nArrived = 0;
};

} // namespace simulation
