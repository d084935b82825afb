#pragma once

#include <array>
#include <cstdint>

#include "arqrx/core/figures.h"
#include "arqrx/program/sample.h"

namespace arqrx {

// The names under which figures are published, in one place for all reports.

// Something that is counted and never goes back. `name` is the field in JSON; the metric is "arqrx_<name>_total".
struct CountField {
    const char* name;
    uint64_t Figures::*count;
    const char* help;
};

inline constexpr std::array COUNT_FIELDS {
    CountField {
        "packets_received", &Figures::received, "Media datagrams that came, doubles and late ones included" },
    CountField { "bytes_received", &Figures::receivedBytes, "Bytes of these, RTP headers included" },
    CountField { "packets_resent", &Figures::resends, "Of these, packets that the proxy sent again" },
    CountField { "packets_played", &Figures::played, "Packets given to the outputs" },
    CountField { "packets_missing", &Figures::missing, "Packets that were missing at some time" },
    CountField { "packets_recovered", &Figures::recovered, "Packets that were missing and came in time" },
    CountField {
        "packets_lost", &Figures::lost, "Packets that were missing when they should have been played out" },
    CountField { "packets_duplicate", &Figures::duplicates, "Packets that were here already" },
    CountField { "packets_late", &Figures::late, "Packets that came after they were lost" },
    CountField { "packets_reordered", &Figures::reordered, "First sendings that came after a later packet" },
    CountField { "packets_overflowed", &Figures::overflows, "Packets dropped because as many waited as may" },
    CountField { "requests", &Figures::requests, "Requests sent to the proxy" },
    CountField { "numbers_asked", &Figures::numbersAsked, "Packets named in these, repeats included" },
    CountField { "pings", &Figures::pings, "Pings sent to the proxy" },
    CountField { "echoes_sent", &Figures::echoesSent, "Measurements of the round trip begun" },
    CountField { "echoes_back", &Figures::echoesBack, "Of these, answered by the proxy" },
    CountField { "stops", &Figures::stops, "Stop messages of the proxy" },
    CountField { "rejoins", &Figures::rejoins, "Times the stream was joined anew after silence" },
    CountField {
        "restarts", &Figures::restarts, "Times play-out began afresh: the clock stepped or numbers jumped" },
    CountField { "strangers", &Figures::strangers, "Datagrams that are nothing of a stream" },
};

// The same for --decrypt; not published without it.
struct DecryptionField {
    const char* name;
    uint64_t DecryptionFigures::*count;
    const char* help;
};

inline constexpr std::array DECRYPTION_FIELDS {
    DecryptionField {
        "packets_decrypted", &DecryptionFigures::decrypted, "Packets of those played that were decrypted" },
    DecryptionField {
        "packets_clear", &DecryptionFigures::clear, "Packets of those played that came in clear" },
    DecryptionField { "packets_undecided", &DecryptionFigures::undecided,
        "Packets that no output got because they could not be decrypted" },
};

// A time of now in microseconds, below 0 while it is not known. In JSON it is "<name>_ms" and left out while not
// known; the metric is "arqrx_<name>_seconds".
struct TimeField {
    const char* name;
    int64_t Figures::*timeUs;
    const char* help;
};

inline constexpr std::array TIME_FIELDS {
    TimeField { "buffer", &Figures::bufferedUs, "From the next packet to play out to the newest" },
    TimeField { "round_trip", &Figures::roundTripUs, "Round trip to the proxy, smoothed" },
    TimeField { "jitter", &Figures::jitterUs, "Jitter of first sendings' arrival (RFC 3550)" },
    TimeField { "tolerance", &Figures::toleranceUs, "How long a gap waits before it is asked for" },
    TimeField { "recover_p50", &Figures::recoverP50Us, "Time from a gap to its packet, half are faster" },
    TimeField {
        "recover_p99", &Figures::recoverP99Us, "Time from a gap to its packet, 99 of 100 are faster" },
};

} // namespace arqrx
