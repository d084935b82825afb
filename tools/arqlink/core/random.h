#pragma once

#include <cstdint>

namespace arqlink {

// What is drawn for a packet. Each purpose has a generator of its own, so that a new draw in one place leaves what is
// drawn elsewhere alone.
enum class Purpose : uint32_t {
    Loss,
    BurstMove,
    BurstLoss,
    Jitter,
    CopyJitter,
    StepAside,
    Duplicate,
    Corrupt,
    Client
};

// The step of SplitMix64 from a counter to a number. A generator of our own: those of the standard library differ
// between libraries, and a seed has to mean the same line everywhere.
constexpr uint64_t Mix(uint64_t value)
{
    value += 0x9E3779B97F4A7C15;
    value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9;
    value = (value ^ (value >> 27)) * 0x94D049BB133111EB;
    return value ^ (value >> 31);
}

// SplitMix64 whose n-th number can be had without the ones before it: what is drawn for packet n depends on the seed,
// the purpose and n, on nothing else.
class Draws {
public:
    Draws(uint64_t seed, Purpose purpose) : m_ulState(Mix(Mix(seed) + static_cast<uint64_t>(purpose))) {}

    uint64_t At(uint64_t n) const { return Mix(m_ulState + n * 0x9E3779B97F4A7C15); }

    // True in `ratio` (0 to 1) of all n. What is true for a ratio is true for every larger one.
    bool Chance(uint64_t n, double ratio) const { return static_cast<double>(At(n) >> 11) * 0x1p-53 < ratio; }

    // Evenly from 0 to `highest`, both included; 0 if that is not positive.
    int64_t UpTo(uint64_t n, int64_t highest) const
    {
        if (highest <= 0)
            return 0;
        return static_cast<int64_t>(At(n) % (static_cast<uint64_t>(highest) + 1));
    }

private:
    uint64_t m_ulState;
};

} // namespace arqlink
