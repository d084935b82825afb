#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "arqrx/program/options.h"
#include "arqrx/program/sample.h"

namespace arqrx {

// A packet on its way out. The bytes stand until the call returns.
struct PlayedPacket {
    std::span<const uint8_t> datagram; // RTP header and payload
    std::span<const uint8_t> payload; // inside it
};

// One place where the stream goes. No call waits: what cannot be taken at once is dropped and counted.
// Threads: the media thread calls all of them.
class Output {
public:
    Output() = default;
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;
    virtual ~Output() = default;

    // Packets that are due now, in order.
    virtual void Send(std::span<const PlayedPacket> packets) = 0;
    // No packet will follow. What still waits goes out, for `patienceUs` at most: the one call that may wait.
    virtual void Finish(int64_t patienceUs) = 0;
    virtual OutputFigures Counted() const = 0;
};

// Opens what `address` names. Null with a sentence in `problem`. Looks host names up, which can take seconds.
std::unique_ptr<Output> OpenOutput(
    const OutputAddress& address, const Options& options, std::string& problem);

} // namespace arqrx
