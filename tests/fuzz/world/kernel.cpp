#include "fuzz/world/kernel.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include "arq/media_clock.h"
#include "fuzz/world/require.h"

thread_local Kernel* Kernel::s_pCurrent = nullptr;

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
    for (const auto& socket : m_sockets) {
        if (socket == nullptr || socket->port != port)
            continue;
        socket->inbox.push_back({ std::string(datagram), sourceNet, sourcePortNet });
        fibers.Wake();
        return true;
    }
    return false;
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

int Kernel::Put(const std::shared_ptr<Socket>& socket)
{
    for (int fd = FIRST_FD; fd < FIRST_FD + FD_COUNT; ++fd) {
        if (At(fd) != nullptr)
            continue;
        At(fd) = socket;
        ++m_nOpen;
        return fd;
    }
    return -EMFILE;
}

int Kernel::Open()
{
    return Put(std::make_shared<Socket>());
}

int Kernel::Duplicate(int fd)
{
    return IsOpen(fd) ? Put(At(fd)) : -EBADF;
}

int Kernel::DuplicateTo(int fd, int place)
{
    Require(IsOpen(fd) && IsOpen(place), "an open descriptor is duplicated to the place of an open one");
    At(place) = At(fd);
    return place;
}

int Kernel::Close(int fd)
{
    Require(IsOpen(fd), "no descriptor is closed twice");
    At(fd).reset();
    --m_nOpen;
    return 0;
}

int Kernel::Bind(int fd, uint16_t port)
{
    if (!IsOpen(fd))
        return -EBADF;
    At(fd)->port = port;
    return 0;
}

int Kernel::ShutDown(int fd)
{
    Require(IsOpen(fd), "an open socket is shut down");
    At(fd)->isShutDown = true;
    return -ENOTCONN;
}

int Kernel::Send(int fd, std::string_view datagram, const sockaddr_in& destination)
{
    Require(IsOpen(fd), "a datagram is sent from an open socket");
    Require(!At(fd)->isShutDown, "nothing is sent to a stream that was cut off");
    const int error = onSend ? onSend(datagram, destination) : 0;
    return error == 0 ? static_cast<int>(datagram.size()) : -error;
}

ssize_t Kernel::Receive(int fd, uint8_t* buffer, size_t size, bool waits, sockaddr_in* source)
{
    constexpr uint64_t RECEIVE_TIMEOUT_MS = 250;
    if (waits && !IsReadable(fd))
        fibers.Pause(fibers.NowMs() + RECEIVE_TIMEOUT_MS, true);
    if (!IsReadable(fd))
        return -EAGAIN;
    const Datagram datagram = std::move(At(fd)->inbox.front());
    At(fd)->inbox.pop_front();
    const size_t count = std::min(size, datagram.bytes.size());
    std::memcpy(buffer, datagram.bytes.data(), count);
    for (size_t i = count; i < size && !m_leftOver.empty(); ++i)
        buffer[i] = static_cast<uint8_t>(m_leftOver[i % m_leftOver.size()]);
    m_received.emplace_back(buffer, size);
    *source = {};
    source->sin_family = AF_INET;
    source->sin_addr.s_addr = datagram.sourceNet;
    source->sin_port = datagram.sourcePortNet;
    return static_cast<ssize_t>(count);
}

bool Kernel::IsReadable(int fd) const
{
    return IsOpen(fd) && !At(fd)->inbox.empty();
}
