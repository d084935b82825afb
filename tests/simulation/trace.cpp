#include "simulation/trace.h"

#include <algorithm>
#include <cinttypes>
#include <cstring>

namespace simulation {

namespace {

constexpr const char* TEXTS[] = {
    "thread %" PRIu64 " starts",
    "thread %" PRIu64 " ends",
    "descriptor %" PRIu64 " made by thread %" PRIu64,
    "descriptor %" PRIu64 " becomes a duplicate of %" PRIu64,
    "descriptor %" PRIu64 " closed",
    "descriptor %" PRIu64 " shut down",
    "media to receiver %" PRIu64 ", number %" PRIu64 ", input %" PRIu64,
    "resend to receiver %" PRIu64 ", number %" PRIu64 ", input %" PRIu64,
    "echo to receiver %" PRIu64,
    "stop message to receiver %" PRIu64,
    "send to receiver %" PRIu64 " refused",
    "ping of receiver %" PRIu64 " taken, port %" PRIu64 ", stop %" PRIu64,
    "request of receiver %" PRIu64 " taken, %" PRIu64 " bytes",
    "lost on link %" PRIu64 ", direction %" PRIu64,
    "doubled on link %" PRIu64 ", direction %" PRIu64,
    "arrives over link %" PRIu64 ", direction %" PRIu64 ", number %" PRIu64,
    "input %" PRIu64 ", number %" PRIu64 ", %" PRIu64 " bytes",
    "input %" PRIu64 " withheld",
    "stream of receiver %" PRIu64 " joins",
    "stream of receiver %" PRIu64 " leaves",
    "command %" PRIu64 " for receiver %" PRIu64,
    "wall clock stepped, new time %" PRIu64 " us",
    "another route, source address %" PRIu64,
    "impairment mode %" PRIu64 ", drop %" PRIu64 ", distance %" PRIu64,
    "pacer tick, %" PRIu64 " released",
    "calm",
    "receiver %" PRIu64 " asks for number %" PRIu64,
    "receiver %" PRIu64 " plays number %" PRIu64 ", lost before it %" PRIu64,
    "receiver %" PRIu64 " begins afresh with number %" PRIu64,
    "receiver %" PRIu64 " is cut off until %" PRIu64 " us",
    "receiver %" PRIu64 " begins",
    "receiver %" PRIu64 " ends, leaving %" PRIu64,
};

} // namespace

void Trace::Note(int64_t atUs, Happened what, uint64_t a, uint64_t b, uint64_t c)
{
    Event& event = m_last[m_nCount++ % KEPT];
    event = { atUs, what, a, b, c };
    Mix(static_cast<uint64_t>(atUs));
    Mix(static_cast<uint64_t>(what));
    Mix(a);
    Mix(b);
    Mix(c);
    if (m_pEcho != nullptr)
        Print(m_pEcho, event);
}

void Trace::AddBytes(const void* bytes, size_t length)
{
    const auto* next = static_cast<const uint8_t*>(bytes);
    Mix(length);
    for (; length != 0;) {
        const size_t some = std::min(length, sizeof(uint64_t));
        uint64_t word = 0;
        std::memcpy(&word, next, some);
        Mix(word);
        next += some;
        length -= some;
    }
}

void Trace::PrintLast(FILE* stream) const
{
    for (uint64_t i = m_nCount > KEPT ? m_nCount - KEPT : 0; i < m_nCount; ++i)
        Print(stream, m_last[i % KEPT]);
}

void Trace::Print(FILE* stream, const Event& event)
{
    fprintf(stream, "  %12.6f ", static_cast<double>(event.atUs) / 1e6);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    fprintf(stream, TEXTS[static_cast<size_t>(event.what)], event.a, event.b, event.c);
#pragma GCC diagnostic pop
    fputc('\n', stream);
}

} // namespace simulation
