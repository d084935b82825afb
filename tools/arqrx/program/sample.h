#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "arqrx/core/figures.h"

namespace arqrx {

// What one output has done since the beginning.
struct OutputFigures {
    std::string name; // as the operator wrote it
    uint64_t packets = 0; // handed to the system
    uint64_t dropped = 0; // packets for which there was no room, or that the system refused
    bool hasFailed = false; // nothing goes there any more
    std::string problem; // why
};

// What became of the packets that were played out, by --decrypt.
struct DecryptionFigures {
    uint64_t decrypted = 0;
    uint64_t clear = 0; // came in clear
    uint64_t undecided = 0; // neither in clear nor of our password: no output has got them
};

// Everything that is known about a run at one moment; counts are those since its beginning.
struct Sample {
    int64_t runUs = 0; // since the start
    int64_t sinceMediaUs = -1; // since the last media packet came; -1: none yet
    Figures core;
    uint64_t transportPackets = 0; // MPEG-TS packets that were played out
    uint64_t continuityErrors = 0; // jumps of their continuity counters
    uint64_t socketDrops = 0; // datagrams that the kernel had no room for
    uint64_t sendFailures = 0; // pings and requests that the system refused
    int64_t playLateP50Us = -1; // from when a packet was due to when it left, of the last 4096; -1: none yet
    int64_t playLateP99Us = -1;
    std::optional<DecryptionFigures> decryption; // nothing without --decrypt
    std::string proxy; // ADDRESS:PORT that is pinged now; empty: nobody
    std::vector<OutputFigures> outputs;
};

} // namespace arqrx
