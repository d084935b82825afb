#include "main/log_buffer.h"

#include <cstdio>
#include <limits>
#include <utility>

namespace {

constexpr size_t STREAMS = 2;
// Room for the end of a line that was cut, on every stream.
constexpr size_t RESERVE_BYTES = STREAMS * (LogBatch::RUN_BYTES + 1);
// The count of a reader that stays away for days ends here instead of wrapping.
constexpr int MOST_LOST = std::numeric_limits<int>::max();

// The bytes of the line that the text begins with; its line end is the last one, unless the text ends before.
size_t FirstLineBytes(std::string_view text)
{
    const size_t end = text.find('\n');
    return end == std::string_view::npos ? text.size() : end + 1;
}

} // namespace

LogBuffer::LogBuffer(bool& ok, size_t capacity, int outputFd, int errorFd)
    : m_first(ok, capacity),
      m_second(ok, capacity),
      m_lines { { { outputFd }, { errorFd } } }
{
}

void LogBuffer::Append(LogStream stream, std::string_view text)
{
    Line& line = m_lines[static_cast<size_t>(stream)];
    if (line.isLost && !text.empty()) {
        const size_t rest = FirstLineBytes(text);
        line.isLost = text[rest - 1] != '\n';
        text.remove_prefix(rest);
    }
    if (!text.empty() && !Keep(line, text))
        Lose(line, text);
}

// What comes behind lost lines may not overtake the notice that replaces them.
bool LogBuffer::Keep(Line& line, std::string_view text)
{
    if (m_nLost != 0 || !m_filled->Put(line.fd, text, RESERVE_BYTES))
        return false;
    line.isBegun = text.back() != '\n';
    return true;
}

void LogBuffer::Lose(Line& line, std::string_view text)
{
    if (line.isBegun)
        (void)m_filled->Put(line.fd, "\n", 0); // nothing may stick to the beginning that was kept
    line.isBegun = false;
    while (!text.empty()) {
        const size_t bytes = FirstLineBytes(text);
        if (m_nLost < MOST_LOST)
            ++m_nLost;
        line.isLost = text[bytes - 1] != '\n';
        text.remove_prefix(bytes);
    }
}

const LogBatch& LogBuffer::Take()
{
    std::swap(m_filled, m_written);
    m_filled->Clear();
    if (m_nLost != 0)
        PutNotice();
    return *m_written;
}

void LogBuffer::PutNotice()
{
    char notice[64] = "";
    (void)snprintf(notice, sizeof(notice), "%d log lines lost: their reader is too slow\n", m_nLost);
    (void)m_filled->Put(m_lines[static_cast<size_t>(LogStream::ERROR)].fd, notice, 0);
    m_nLost = 0;
}
