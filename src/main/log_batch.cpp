#include "main/log_batch.h"

#include <cstring>
#include <new>

LogBatch::LogBatch(bool& ok, size_t capacity)
    : m_bytes(new (std::nothrow) char[capacity]),
      m_nCapacity(m_bytes ? capacity : 0)
{
    if (!m_bytes)
        ok = false;
}

bool LogBatch::Put(int fd, std::string_view text, size_t reserve)
{
    const size_t needed = RUN_BYTES + text.size() + reserve;
    if (needed < text.size() || needed > m_nCapacity - m_nUsed)
        return false;
    Head head { 0, fd };
    if (!IsEmpty() && HeadAt(m_nLast).fd == fd) {
        head = HeadAt(m_nLast);
    } else {
        m_nLast = m_nUsed;
        m_nUsed += RUN_BYTES;
    }
    head.length += text.size();
    SetHead(m_nLast, head);
    std::memcpy(m_bytes.get() + m_nUsed, text.data(), text.size());
    m_nUsed += text.size();
    return true;
}

LogRun LogBatch::Next(size_t* place) const
{
    if (*place >= m_nUsed)
        return {};
    const Head head = HeadAt(*place);
    const char* text = m_bytes.get() + *place + RUN_BYTES;
    *place += RUN_BYTES + head.length;
    return { head.fd, { text, head.length } };
}

void LogBatch::Clear()
{
    m_nUsed = 0;
}

// Heads stand at any offset.
LogBatch::Head LogBatch::HeadAt(size_t place) const
{
    Head head {};
    const char* bytes = m_bytes.get() + place;
    std::memcpy(&head.length, bytes, sizeof(head.length));
    std::memcpy(&head.fd, bytes + sizeof(head.length), sizeof(head.fd));
    return head;
}

void LogBatch::SetHead(size_t place, const Head& head)
{
    char* bytes = m_bytes.get() + place;
    std::memcpy(bytes, &head.length, sizeof(head.length));
    std::memcpy(bytes + sizeof(head.length), &head.fd, sizeof(head.fd));
}
