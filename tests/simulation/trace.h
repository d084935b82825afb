#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace simulation {

enum class Happened : uint8_t {
    ThreadStarts,
    ThreadEnds,
    SocketMade,
    SocketDuplicated,
    SocketClosed,
    SocketShut,
    SendsMedia,
    SendsAgain,
    SendsEcho,
    SendsStop,
    SendRefused,
    TakesPing,
    TakesRequest,
    Lost,
    Doubled,
    Arrives,
    Input,
    Withheld,
    Joins,
    Leaves,
    Command,
    ClockStep,
    RouteChanges,
    Impairment,
    Tick,
    Calm,
    AsksFor,
    Plays,
    BeginsAfresh,
    CutOff,
    Begins,
    Ends,
};

// What happened in a run: a hash over everything, for comparing two runs, and the last events, for people.
class Trace {
public:
    void Note(int64_t atUs, Happened what, uint64_t a = 0, uint64_t b = 0, uint64_t c = 0);
    // Takes bytes into the hash; they belong to the event noted last.
    void AddBytes(const void* bytes, size_t length);

    uint64_t Hash() const { return m_nHash; }
    uint64_t Count() const { return m_nCount; }
    void PrintLast(FILE* stream) const;
    // Every event is printed at once as well.
    void EchoTo(FILE* stream) { m_pEcho = stream; }

private:
    struct Event {
        int64_t atUs;
        Happened what;
        uint64_t a, b, c;
    };
    static constexpr uint64_t KEPT = 48;

    static void Print(FILE* stream, const Event& event);
    void Mix(uint64_t word) { m_nHash = (((m_nHash << 27) | (m_nHash >> 37)) ^ word) * 0x9E3779B97F4A7C15; }

    Event m_last[KEPT] {};
    uint64_t m_nCount = 0;
    uint64_t m_nHash = 0x6A09E667F3BCC908;
    FILE* m_pEcho = nullptr;
};

} // namespace simulation
