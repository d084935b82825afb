#include "arqlink/relay/outbox.h"

#include <utility>

namespace arqlink {

namespace {

constexpr size_t MOST_TOGETHER = 64;

} // namespace

Outbox::Outbox() : m_deliveries(MOST_TOGETHER), m_writer(MOST_TOGETHER) {}

size_t Outbox::Send(int fd, const common::Endpoint& to)
{
    size_t refused = 0;
    if (fd != m_nFd && m_nCount > 0) {
        const size_t place = m_nCount;
        refused = Flush();
        std::swap(m_deliveries[0], m_deliveries[place]);
    }
    m_nFd = fd;
    m_writer.Add(m_deliveries[m_nCount++].bytes, to);
    return refused + (m_nCount == MOST_TOGETHER ? Flush() : 0);
}

size_t Outbox::Flush()
{
    m_nCount = 0;
    return m_writer.IsEmpty() ? 0 : m_writer.Flush(m_nFd).refused;
}

} // namespace arqlink
