#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "common/endpoint.h"

namespace arqrx {

enum class OutputKind : uint8_t {
    Udp, // datagrams, with the RTP header unless it is to be taken off
    Rtp, // datagrams, always with it
    File,
    StandardOutput
};

// Where an output goes, as the operator wrote it.
struct OutputAddress {
    OutputKind kind = OutputKind::Udp;
    std::string text; // as given
    std::string hostAndPort; // "HOST:PORT" of Udp and Rtp; the host may be a name
    std::string path; // of File
    int timeToLive = 1; // of datagrams to a group
    std::string networkInterface; // by which they leave; empty: the system chooses
    common::Endpoint source; // which they come from; all 0: the system chooses
};

// "udp://HOST:PORT", "rtp://HOST:PORT", both with "?ttl=4&interface=eth1&source=ADDRESS[:PORT]" behind them as wanted;
// "file:PATH"; "-". False with a sentence in `problem` that says what is wrong and what is right.
bool ParseOutput(std::string_view text, OutputAddress& output, std::string& problem);

} // namespace arqrx
