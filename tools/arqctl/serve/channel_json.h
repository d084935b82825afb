#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>

#include "arqctl/serve/board.h"

namespace arqctl {

// Two readings of one moment: the clock that times are kept in and the one that they are told in.
struct Moment {
    int64_t monotonicUs = 0;
    double unixSeconds = 0;

    // The Unix time of something that was noted on the monotonic clock, by today's setting of the wall clock.
    double UnixOf(int64_t atUs) const { return unixSeconds - static_cast<double>(monotonicUs - atUs) / 1e6; }
};
Moment ThisMoment();

// The objects of the HTTP interface, described in docs/arqctl.md. Values that are not known are left out.
nlohmann::ordered_json ChannelObject(const Channel& channel, const ReceiverTable& reports, const Moment& now);
nlohmann::ordered_json ChannelsObject(const Board& board, bool isControlAllowed, const Moment& now);
// Values that are not known are null: a column has a value a step.
nlohmann::ordered_json HistoryObject(const Channel& channel, int64_t span, int64_t points, const Moment& now);

} // namespace arqctl
