#include "fuzz/world/kernel.h"

#include <cstring>
#include <utility>

#include "arq/media_clock.h"
#include "fuzz/world/require.h"

namespace {

// Wall-clock seconds of which the ticks wrap in less than one second.
int64_t SecondBeforeWrap()
{
    constexpr uint32_t TICKS_A_SECOND = 90000;
    int64_t second = 1700000000;
    while (static_cast<uint32_t>(second) * TICKS_A_SECOND < 0U - TICKS_A_SECOND)
        ++second;
    return second;
}

} // namespace

Kernel::Kernel()
{
    ResetWallClock();
}

bool Kernel::Deliver(uint16_t port, std::string_view datagram, in_addr_t sourceNet, uint16_t sourcePortNet)
{
    if (!Put(port, { sourceNet, sourcePortNet, { datagram.begin(), datagram.end() } }))
        return false;
    fibers.Wake();
    return true;
}

void Kernel::ResetWallClock()
{
    static const int64_t start = SecondBeforeWrap();
    m_nWallUs = start * 1000000 - static_cast<int64_t>(fibers.NowMs()) * 1000;
}

timeval Kernel::WallClock() const
{
    const int64_t us = m_nWallUs + static_cast<int64_t>(fibers.NowMs()) * 1000;
    return { us / 1000000, us % 1000000 };
}

uint32_t Kernel::Ticks() const
{
    return MediaClockTicks(WallClock());
}

void Kernel::ClearReceived()
{
    for (const auto& [start, size] : m_received)
        std::memset(start, 0, size);
    m_received.clear();
}

void Kernel::OnMessage(const kernel_model::Attempt& attempt, kernel_model::Fate fate)
{
    if (onMessage)
        onMessage(attempt, fate);
}

void Kernel::OnTaken(const kernel_model::Socket& /*socket*/,
    const kernel_model::ReceivedDatagram& /*datagram*/, uint8_t* buffer, size_t count, size_t room)
{
    for (size_t i = count; i < room && !m_leftOver.empty(); ++i)
        buffer[i] = static_cast<uint8_t>(m_leftOver[i % m_leftOver.size()]);
    m_received.emplace_back(buffer, room);
}

void Kernel::WaitForDatagrams(int64_t ms)
{
    constexpr int64_t LONG_MS = 1000000;
    fibers.Pause(fibers.NowMs() + static_cast<uint64_t>(ms < 0 ? LONG_MS : ms), true);
}

void Kernel::OnMisuse(const char* promise)
{
    Require(false, promise);
}
