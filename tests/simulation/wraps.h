#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace simulation {

// Counters of 16 and 32 bits that come round, or change their sign where they are compared as signed numbers.
enum class Wrap : size_t {
    InputSeq, // numbers of RTP input
    BuiltSeq, // numbers given out in UDP input mode
    ResentSeq, // a number from before the wrap sent again behind it
    MediaTicks,
    MediaTicksSign,
    WallMs,
    WallMsSign,
    WallUs,
    WallUsSign,
    WallSeconds, // SSRC of built headers
    WallSecondsSign,
    SteadyMs,
    SteadyMsSign,
    RxBytes,
    TxBytes,
    PoolRing,
    Kinds
};

constexpr size_t WRAP_KINDS = static_cast<size_t>(Wrap::Kinds);

constexpr std::array<const char*, WRAP_KINDS> WRAP_NAMES
    = { "numbers of RTP input", "numbers of built headers", "resends across the wrap of numbers",
          "media ticks", "media ticks, sign", "wall milliseconds", "wall milliseconds, sign",
          "wall microseconds", "wall microseconds, sign", "wall seconds", "wall seconds, sign",
          "steady milliseconds", "steady milliseconds, sign", "received bytes", "sent bytes", "packet pool" };

// How often each was passed.
struct WrapCounts {
    std::array<uint64_t, WRAP_KINDS> passed {};

    void Add(Wrap kind) { ++passed[static_cast<size_t>(kind)]; }
    void Add(const WrapCounts& other)
    {
        for (size_t i = 0; i < WRAP_KINDS; ++i)
            passed[i] += other.passed[i];
    }
    // Notes what a 32-bit counter has passed on its way from `then` to `now`, less than half of its range.
    void Watch(uint32_t then, uint32_t now, Wrap wrap, Wrap sign)
    {
        if (now < then)
            Add(wrap);
        if (static_cast<int32_t>(then) >= 0 && static_cast<int32_t>(now) < 0)
            Add(sign);
    }
};

} // namespace simulation
