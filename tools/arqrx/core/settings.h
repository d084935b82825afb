#pragma once

#include <cstdint>

namespace arqrx {

// What the operator decides about a receiver. The first values suit a proxy started without options.
struct Settings {
    uint32_t streamId = 0; // tells receivers behind one address apart; 0: no tag
    bool isPinging
        = true; // joins and stays by pinging; false: the proxy knows us, or we only listen to a group
    bool isAsking = true; // asks for what is missing; false: only counts it
    int64_t latencyUs = 600'000; // from the fastest packet's arrival to its play-out
    int64_t pingIntervalUs = 1'000'000; // at most 4.9 s keeps a stream
    int64_t holdOffUs = 100'000; // the proxy sends no packet again sooner than this after the last time
    uint32_t ringPackets = 4096; // what the proxy remembers (-q)
    uint32_t proxyBitRate = 50'000'000; // from which the proxy reckons a request's byte budget (-G)
    int64_t silenceUs = 3'000'000; // without media and echoes for so long it leaves and joins anew
    int64_t rejoinAfterUs = 10'000'000; // after the proxy's stop message it is quiet for so long; 0: for ever
    uint32_t mostPackets = 65'536; // that wait at a time: bounds the memory
};

} // namespace arqrx
