#include "arqrx/core/receiver.h"

#include "arqrx/core/engine.h"

namespace arqrx {

Receiver::Receiver(const Settings& settings) : m_engine(std::make_unique<Engine>(settings)) {}

Receiver::~Receiver() = default;

void Receiver::OnDatagram(std::span<const uint8_t> datagram, int64_t nowUs)
{
    m_engine->OnDatagram(datagram, nowUs);
}

void Receiver::OnTime(int64_t nowUs)
{
    m_engine->OnTime(nowUs);
}

void Receiver::Leave()
{
    m_engine->Leave();
}

void Receiver::EndOfStream(int64_t nowUs)
{
    m_engine->EndOfStream(nowUs);
}

std::optional<Transmit> Receiver::NextTransmit()
{
    return m_engine->NextTransmit();
}

std::optional<Packet> Receiver::NextPacket()
{
    return m_engine->NextPacket();
}

WakeUp Receiver::NextWakeUp() const
{
    return m_engine->NextWakeUp();
}

const Figures& Receiver::Counted() const
{
    return m_engine->Counted();
}

} // namespace arqrx
