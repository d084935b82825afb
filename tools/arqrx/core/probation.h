#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "arqrx/core/datagram_kind.h"

namespace arqrx {

// A first sending, where it stands and when it came.
struct Arrival {
    std::span<const uint8_t> datagram;
    MediaWords words;
    int64_t timeUs;
};

// Holds a first sending that does not go with the stream: by its source, its number or its timestamp. Only when a second
// one goes with it has the stream changed (RFC 3550, A.1); one alone is a stray or was damaged on its way.
class Probation {
public:
    bool IsHeld() const { return m_bHeld; }
    const Arrival& Held() const { return m_arrival; }
    void Hold(const Arrival& arrival);
    void Forget() { m_bHeld = false; }
    // Do they belong to one stream, close to each other.
    bool GoesWith(const Arrival& arrival) const;

private:
    bool m_bHeld = false;
    Arrival m_arrival {};
    std::array<uint8_t, MOST_DATAGRAM_BYTES> m_bytes {};
};

} // namespace arqrx
