#pragma once

#include <cstdint>

namespace arqrx {

// What a receiver has counted since it began, in packets where nothing else is said, and a few readings of now.
// A number is missing from when it is asked for first, or would be: one that is only overtaken comes before that.
// missing = recovered + lost + waiting holds after every call.
struct Figures {
    uint64_t received = 0; // media datagrams, doubles and late ones included
    uint64_t receivedBytes = 0; // of these, RTP headers included
    uint64_t resends = 0; // of these, those with payload type 122
    uint64_t played = 0;
    uint64_t missing = 0;
    uint64_t recovered = 0; // missing once, and here in time
    uint64_t lost = 0; // missing when its time to be played out came
    uint64_t waiting = 0; // missing now, may still come
    uint64_t duplicates = 0; // number here already
    uint64_t late = 0; // came after it was lost, or before our time
    uint64_t reordered = 0; // first sendings that came after a higher number
    uint64_t requests = 0; // datagrams
    uint64_t numbersAsked = 0; // in these, repeats included
    uint64_t pings = 0;
    uint64_t echoesSent = 0;
    uint64_t echoesBack = 0;
    uint64_t stops = 0; // stop messages of the proxy
    uint64_t rejoins = 0; // joined anew, after silence or a stop message
    uint64_t restarts = 0; // play-out began afresh: the clock stepped, or numbers jumped
    uint64_t strangers = 0; // datagrams that are nothing of ours; they count as nothing else
    uint64_t overflows = 0; // packets dropped because as many waited as may

    uint32_t mostAsked = 0; // numbers in the largest request of the last second
    uint64_t buffered = 0; // packets here that wait for their time
    int64_t bufferedUs = 0; // from the next to play out to the newest
    int64_t roundTripUs = -1; // smoothed; -1: not known yet
    int64_t jitterUs = 0; // of first sendings' arrival (RFC 3550, 6.4.1)
    int64_t toleranceUs = 0; // how long a gap waits before it is asked for
    double driftPpm = 0; // how much faster the proxy's clock runs than ours
    int64_t recoverP50Us = -1; // from noticing a gap to its packet, of the last 1024; -1: none yet
    int64_t recoverP99Us = -1;
};

} // namespace arqrx
