#pragma once

#include <cstdint>
#include <map>
#include <memory>

// The smallest and largest of the last N samples. Up to 499 samples are searched linearly; a longer
// window keeps a counted map of what is in it.
//
// Threads: none of its own and no lock; one caller at a time.
class SlidingExtremum {
public:
    enum Mode : uint32_t { MINIMUM = 0, MAXIMUM = 1, BOTH = 2 };

    // A window of `length` (at least 1) samples. Clears ok when memory is short; then only destruction is
    // allowed. Until N samples have come the rest of the window counts as the value that can never win
    // (0 when both are tracked).
    SlidingExtremum(bool& ok, int32_t length, Mode mode);

    // Fills the whole window with `value`. The map form also forgets that the window was ever full; the
    // linear form does not.
    void Reset(int32_t value);

    // Puts the sample into the window in place of the oldest one.
    void Add(int32_t sample);

    // Searches the window again (linear form; the map form needs none).
    void Recompute();

    // The extremes: as of the last Recompute in the linear form, current in the map form. The map orders
    // its keys as unsigned numbers.
    int32_t Minimum();
    int32_t Maximum();

    // Whether the write position has wrapped at least once.
    bool IsFull() const { return m_bFull; }

private:
    static constexpr int32_t LONGEST_LINEAR_WINDOW = 499;

    void CountInMap(uint32_t incoming, uint32_t outgoing);
    void DropFromMap(uint32_t outgoing);

    std::map<uint32_t, uint32_t> m_counts; // sample -> occurrences in the window; map form only
    int32_t m_nLength;
    Mode m_mode;
    std::unique_ptr<int32_t[]> m_samples;
    bool m_bFull = false;
    int32_t m_nPosition = 0; // where the next sample goes
    int32_t m_nMinimum = 0;
    int32_t m_nMaximum = 0;
    bool m_bMapForm;
};
