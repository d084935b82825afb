#pragma once

#include <cstddef>
#include <cstdint>

#include "base/plain_word.h"

// What one way to a receiver has refused as a train, for a while: where datagrams of some
// size are cut into fragments there are no trains of them, from a device without checksums no trains at all.
// Plain sends are not affected.
//
// Threads: the sending threads and the listen thread ask and tell. An update lost between two of them costs
// one more refusal, after which the same datagrams leave plainly.
class TrainRefusals {
public:
    // After so long the way may be another one.
    static constexpr uint32_t HOLD_MS = 5000;

    // Whether a train of pieces of that size may be tried. `nowMs` is asked for only where it was refused.
    template <typename Clock>
    bool Allows(size_t pieceBytes, Clock nowMs)
    {
        return pieceBytes < m_nRefusedBytes || HasEnded(nowMs());
    }

    // A train of such pieces was refused with this error number; larger ones would be too.
    void OnRefused(size_t pieceBytes, int error, uint32_t nowMs);

    // The send buffer is full. More datagrams fit in when they come in trains, and whoever waits until half
    // of it is empty would wait for more of them: so for a while they come one by one.
    void OnFull(uint32_t nowMs);

private:
    static constexpr size_t NONE = SIZE_MAX; // larger than any piece

    bool HasEnded(uint32_t nowMs);

    PlainWord<size_t> m_nRefusedBytes { NONE }; // the smallest piece that was refused
    PlainWord<uint32_t> m_nSinceMs { 0 };
};
