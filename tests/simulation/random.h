#pragma once

#include <cstdint>

namespace simulation {

// Who draws. Each purpose and each of its members has a generator of its own, so that a new draw in one place
// leaves what happens elsewhere as it was.
enum class Purpose : uint32_t {
    Config,
    Input,
    Uplink,
    Downlink,
    Receiver,
    Clock,
    Operator,
    Sleep,
    Socket,
    Route,
    Arqrx
};

// A generator of our own (SplitMix64): the distributions of the standard library differ between libraries, and a
// seed has to mean the same run everywhere.
class Random {
public:
    explicit Random(uint64_t state) : m_nState(state) {}
    Random(uint64_t seed, Purpose purpose, uint32_t member = 0)
        : m_nState(Mix(seed + Mix((static_cast<uint64_t>(purpose) << 32) + member + 1)))
    {
    }

    uint64_t Next()
    {
        m_nState += 0x9E3779B97F4A7C15;
        return Mix(m_nState);
    }

    // Evenly from `low` to `high`, both included. The bias of the remainder is far below what anybody counts.
    int64_t Between(int64_t low, int64_t high)
    {
        return low + static_cast<int64_t>(Next() % static_cast<uint64_t>(high - low + 1));
    }

    // True in `permille` of 1000 cases. Nothing is drawn for what never happens.
    bool Chance(int64_t permille) { return permille > 0 && Between(0, 999) < permille; }

private:
    static uint64_t Mix(uint64_t value)
    {
        value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9;
        value = (value ^ (value >> 27)) * 0x94D049BB133111EB;
        return value ^ (value >> 31);
    }

    uint64_t m_nState;
};

} // namespace simulation
