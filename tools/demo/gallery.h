#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "demo/canvas.h"
#include "demo/history.h"
#include "demo/phases.h"
#include "demo/picture_decoder.h"

namespace demo {

// Both sides' picture of the same moment.
struct Moment {
    uint64_t number; // of the picture
    std::array<Canvas, 2> pictures; // by side
    uint64_t difference; // points in which they differ
};

// Collects the pictures that both sides showed and keeps a few: of each part of a phase the moment at which the two differ
// most. Threads: one.
class Gallery {
public:
    // How many moments are kept of each phase.
    Gallery(const std::vector<Phase>& phases, int picturesPerSecond);

    // Pictures of a side come in order; those of the two sides may be far apart.
    void Take(Side side, ShownPicture&& shown);

    // In order of time.
    std::vector<Moment> Moments() const;
    // The last picture that a side showed, for the view; null before the first.
    const Canvas* Latest(Side side) const;
    uint64_t Shown(Side side) const { return m_shown[Index(side)]; }
    uint64_t Damaged(Side side) const { return m_damaged[Index(side)]; } // pictures with holes

private:
    struct Slot {
        int64_t startUs, endUs;
        std::optional<Moment> best;
    };
    void Offer(Moment&& moment);

    std::vector<Slot> m_slots;
    std::array<std::map<uint64_t, Canvas>, 2> m_waiting; // for the other side's picture
    std::array<std::optional<Canvas>, 2> m_latest;
    std::array<uint64_t, 2> m_shown {};
    std::array<uint64_t, 2> m_damaged {};
    int m_nPicturesPerSecond;
};

// One side's pictures of all moments below each other in rows, each with its time and the line's phase.
Canvas DrawStrip(
    const std::vector<Moment>& moments, Side side, const std::vector<Phase>& phases, int picturesPerSecond);

} // namespace demo
