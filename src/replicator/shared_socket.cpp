#include "replicator/shared_socket.h"

#include <new>
#include <utility>

SharedSocket::SharedSocket(int fd)
{
    UniqueFd owned(fd);
    if (!owned.IsValid())
        return;
    m_pCounted = new (std::nothrow) Counted;
    if (m_pCounted)
        m_pCounted->fd = std::move(owned);
}

SharedSocket::SharedSocket(const SharedSocket& other) : m_pCounted(other.m_pCounted)
{
    if (m_pCounted)
        m_pCounted->holders.fetch_add(1);
}

SharedSocket::SharedSocket(SharedSocket&& other) noexcept
    : m_pCounted(std::exchange(other.m_pCounted, nullptr))
{
}

SharedSocket& SharedSocket::operator=(SharedSocket other) noexcept
{
    std::swap(m_pCounted, other.m_pCounted);
    return *this;
}

SharedSocket::~SharedSocket()
{
    if (m_pCounted && m_pCounted->holders.fetch_sub(1) == 1)
        delete m_pCounted;
}

int SharedSocket::Get() const
{
    return m_pCounted ? m_pCounted->fd.Get() : -1;
}

bool SharedSocket::IsShared() const
{
    return m_pCounted && m_pCounted->holders.load() > 1;
}
