#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "arqrx/core/missing_list.h"
#include "arqrx/core/receiver.h"
#include "arqrx/core/reorder_tolerance.h"
#include "arqrx/core/request_window.h"
#include "arqrx/core/round_trip.h"

namespace arqrx {

// The newest number, and from where on the proxy's numbers and ours are the same.
struct Newest {
    uint64_t index = 0;
    uint16_t seq = 0;
    uint64_t firstIndex = 0;
};

// Decides which gaps count as missing, which of these are asked for, when, and how they are split into requests.
class Asker {
public:
    Asker(const Settings& settings, MissingList& missing, const ReorderTolerance& tolerance,
        const RoundTrip& roundTrip);

    // Takes the gaps whose turn has come; `isAllowed`: numbers may be asked for at all.
    void Advance(const Newest& newest, bool isAllowed, int64_t nowUs, Figures& figures);
    // The numbers of the next request, oldest first; empty when nothing is due. Stands until the next call.
    std::span<const uint16_t> TakeRequest(const Newest& newest, int64_t nowUs);
    bool HasDue() const { return m_missing.Due() > 0; }
    // When a gap's turn comes next; INT64_MAX when none waits.
    int64_t NextUs(int64_t nowUs) const;

    // A gap was filled by a resend, or is lost: whether its first try was in vain.
    void NoteRecovered(const Gap& gap, int64_t nowUs);
    void NoteLost(const Gap& gap);
    // The size of a first sending, from which the budget of a request is reckoned.
    void AddSize(size_t bytes);
    const RequestWindow& Window() const { return m_window; }
    // How long a gap waits before its first turn.
    int64_t ToleranceUs(int64_t nowUs) const;

private:
    bool IsWorthIt(const Gap& gap, const Newest& newest, int64_t nowUs) const;
    int64_t GuardedHoldOffUs() const;
    int64_t AfterUs(Gap::Turn turn) const;
    Gap::Turn TurnAfterAsking(const Gap& gap, const Newest& newest, int64_t nowUs) const;
    void TakeFirst(const Newest& newest, bool isAllowed, int64_t nowUs, Figures& figures);
    void TakeAgain(Gap::Turn turn, const Newest& newest, bool isAllowed, int64_t nowUs);
    void Enlist(Gap& gap, bool isWanted);
    bool Ask(Gap& gap, const Newest& newest, int64_t nowUs);

    const Settings m_settings;
    const RequestWindow m_window;
    MissingList& m_missing;
    const ReorderTolerance& m_tolerance;
    const RoundTrip& m_roundTrip;
    std::vector<uint64_t> m_due; // whose turn is Now, and some that were filled since
    size_t m_nTaken = 0; // of these
    int64_t m_nRestUs = INT64_MIN; // no request before
    std::array<uint16_t, 763> m_numbers {};
    double m_fMeanBytes = 0;
    double m_fFailShare = 0.01; // of first tries, lately; lost on the way there or back
};

} // namespace arqrx
