#pragma once

#include <array>
#include <cstdint>

namespace arqctl {

// Tells what a proxy withheld from what is only under way. It counts up to 32 input packets before the first of their
// datagrams leaves, so an answer that comes in between shows fewer than it should; the next one shows them as too many.
// What is missing counts as withheld once it is more than can be under way, or is still missing two answers later.
class Shortfall {
public:
    struct Settled {
        uint64_t beyond = 0; // datagrams sent over what was expected
        uint64_t withheld = 0;
    };

    // An interval between two answers in which at least `least` and at most `most` datagrams were expected. `underWay`:
    // the most that may have been counted but not sent yet.
    Settled Take(uint64_t sent, uint64_t least, uint64_t most, uint64_t underWay);
    // What was missing before says nothing about what comes: a count was reset, the proxy is another one.
    void Forget() { *this = Shortfall(); }

private:
    uint64_t Settle(uint64_t underWay);

    uint64_t m_nMissing = 0;
    std::array<uint64_t, 2> m_before {}; // the same at the last answers, latest first
};

} // namespace arqctl
