#include "simulation/network.h"

#include <arpa/inet.h>

#include <cinttypes>
#include <utility>

#include "simulation/failure.h"

namespace simulation {

Network::Network(
    Machine& machine, const Config& config, const std::vector<ReceiverIdentity>& receivers, Mailbox& mailbox)
    : m_machine(machine),
      m_receivers(receivers),
      m_mailbox(mailbox)
{
    for (const ReceiverIdentity& receiver : receivers) {
        const auto member = static_cast<uint32_t>(receiver.index);
        m_downlinks.emplace_back(
            config.downlink, config.delayUs, Random(config.seed, Purpose::Downlink, member));
        m_uplinks.emplace_back(config.uplink, config.delayUs, Random(config.seed, Purpose::Uplink, member));
    }
}

void Network::SendDown(const Delivery& delivery)
{
    Send(m_downlinks[static_cast<size_t>(delivery.receiver)], delivery.receiver, { DOWN, delivery, 0, {} });
}

void Network::SendUp(int receiver, uint16_t fromPort, uint16_t toPort, std::vector<uint8_t> bytes)
{
    const in_addr_t addressNet = m_receivers[static_cast<size_t>(receiver)].addressNet;
    Message message { UP, {}, toPort, { addressNet, htons(fromPort), std::move(bytes) } };
    message.delivery.receiver = receiver;
    Send(m_uplinks[static_cast<size_t>(receiver)], receiver, message);
}

void Network::Send(LinkModel& link, int receiver, const Message& message)
{
    const LinkModel::Fate fate = link.Decide();
    ++m_nSent;
    m_nLost += fate.copies == 0 ? 1 : 0;
    m_nDoubled += fate.copies == 2 ? 1 : 0;
    if (fate.copies != 1)
        m_machine.Note(fate.copies == 0 ? Happened::Lost : Happened::Doubled, static_cast<uint64_t>(receiver),
            message.direction);
    for (int i = 0; i < fate.copies; ++i) {
        if (m_free.empty()) {
            m_free.push_back(m_messages.size());
            m_messages.emplace_back();
        }
        const size_t place = m_free.back();
        m_free.pop_back();
        m_messages[place] = message;
        m_machine.queue.Put(m_machine.clock.NowUs() + fate.delaysUs[i], *this, place);
    }
}

void Network::OnEvent(uint64_t argument)
{
    const Message message = std::move(m_messages[argument]);
    m_free.push_back(argument);
    ++m_nArrived;
    m_machine.Note(Happened::Arrives, static_cast<uint64_t>(message.delivery.receiver), message.direction,
        message.delivery.seq);
    Arrive(message);
}

// A datagram for a port that nobody has open is gone.
void Network::Arrive(const Message& message)
{
    if (message.direction == DOWN)
        m_mailbox.OnArrival(message.delivery);
    else
        (void)m_machine.Deliver(message.toPort, message.datagram);
}

void Network::EndFaults()
{
    for (LinkModel& link : m_downlinks)
        link.EndFaults();
    for (LinkModel& link : m_uplinks)
        link.EndFaults();
}

void Network::CheckBalance() const
{
    const uint64_t onTheWay = m_messages.size() - m_free.size();
    REQUIRE_THAT(m_nSent + m_nDoubled == m_nLost + m_nArrived + onTheWay,
        "of %" PRIu64 " datagrams and %" PRIu64 " doubles %" PRIu64 " were lost, %" PRIu64
        " arrived and %" PRIu64 " are on their way",
        m_nSent, m_nDoubled, m_nLost, m_nArrived, onTheWay);
}

} // namespace simulation
