// The receiver's library in the hands of a stranger: one thread, a clock of its own, no proxy. Three packets come, the
// second only when it is asked for. Exits with 0 when all three were played out in order.
#include <array>
#include <cstdint>
#include <cstdio>

#include "arqrx/core/receiver.h"

namespace {

constexpr int64_t PACKET_US = 10'000;
constexpr int64_t PACKET_TICKS = 900; // of 90 kHz
constexpr uint8_t FIRST_SENDING = 33; // payload types
constexpr uint8_t RESEND = 122;

std::array<uint8_t, 16> Media(uint16_t number, uint8_t payloadType)
{
    std::array<uint8_t, 16> datagram { 0x80, payloadType };
    const auto ticks = static_cast<uint32_t>(number * PACKET_TICKS);
    datagram[2] = static_cast<uint8_t>(number >> 8);
    datagram[3] = static_cast<uint8_t>(number);
    for (size_t i = 0; i < 4; ++i)
        datagram[4 + i] = static_cast<uint8_t>(ticks >> (24 - 8 * i));
    datagram[12] = static_cast<uint8_t>(number);
    return datagram;
}

class Player {
public:
    void Play()
    {
        m_receiver.OnDatagram(Media(1, FIRST_SENDING), 1 * PACKET_US);
        m_receiver.OnDatagram(Media(3, FIRST_SENDING), 3 * PACKET_US);
        for (;;) {
            const arqrx::WakeUp next = m_receiver.NextWakeUp();
            if (m_nPlayed == 3 || next.timeUs > 1'000'000)
                return;
            m_receiver.OnTime(next.timeUs);
            Send(next.timeUs);
            while (const auto packet = m_receiver.NextPacket())
                m_bInOrder = packet->datagram[12] == ++m_nPlayed && m_bInOrder;
        }
    }

    bool IsGood() const { return m_nPlayed == 3 && m_bInOrder && m_receiver.Counted().recovered == 1; }

private:
    // The proxy answers a request, which is longer than a ping of the round trip, at once.
    void Send(int64_t nowUs)
    {
        bool isAsked = false;
        while (const auto transmit = m_receiver.NextTransmit())
            isAsked = isAsked || (transmit->port == arqrx::ProxyPort::Request && transmit->bytes.size() > 10);
        if (isAsked)
            m_receiver.OnDatagram(Media(2, RESEND), nowUs);
    }

    arqrx::Receiver m_receiver { arqrx::Settings {} };
    int m_nPlayed = 0;
    bool m_bInOrder = true;
};

} // namespace

int main()
{
    Player player;
    player.Play();
    if (player.IsGood())
        return 0;
    (void)fputs("the receiver did not play out three packets in order\n", stderr);
    return 1;
}
