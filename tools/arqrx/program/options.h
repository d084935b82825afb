#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "arqrx/core/settings.h"
#include "arqrx/program/output_address.h"
#include "arqrx/program/report_address.h"
#include "common/clock.h"
#include "common/endpoint.h"

namespace arqrx {

constexpr uint16_t DEFAULT_PING_PORT = 10000;
constexpr uint16_t DEFAULT_REQUEST_PORT = 7020;

// Everything that the command line and the configuration file say, checked.
struct Options {
    Settings settings;

    std::string proxyHost; // who is pinged and asked; empty: nobody
    uint16_t pingPort = DEFAULT_PING_PORT;
    uint16_t requestPort = DEFAULT_REQUEST_PORT;
    std::optional<common::Endpoint> listen; // a static stream's own port; there are no pings then
    std::optional<common::Endpoint> group; // whose first sendings come by multicast
    std::string networkInterface; // on which the group is joined
    std::optional<common::Endpoint> bind; // from which the proxy is spoken to
    int receiveBufferBytes = 8'000'000;

    std::vector<OutputAddress> outputs;
    bool isStripping = false; // udp:// without the RTP header
    bool isKeepingRtp = false; // file: and - with it, behind two bytes of length (RFC 4571)
    int64_t writeBufferBytes = 16'000'000; // what may wait for a slow file
    std::string decryptionLibrary; // whose other end the proxy has loaded; empty: the stream is not decrypted
    std::string passwordFile; // for it; empty: it gets none

    bool isJson = false;
    bool isQuiet = false;
    int64_t intervalUs = common::US_PER_SECOND; // of the figures
    std::string metrics; // ADDRESS:PORT; empty: off
    ReportAddress report; // where reports go
    std::string reportName; // who we are in them; empty: this machine's name

    int64_t durationUs = 0; // 0: until a signal
    int64_t exitAfterSilenceUs = 0; // 0: silence ends nothing
    bool isDraining = false; // what is buffered plays out before the end
    std::optional<double> mostLoss; // share of the packets that may be lost without exit status 1

    bool WritesToStandardOutput() const;
};

// What goes together and what does not; the first thing that is wrong as a sentence, empty when all is well.
std::string Contradiction(const Options& options);

// "0x1A2B", "6699" -> an ID; "none" -> 0. False when it is neither; "auto" is the caller's.
bool ParseStreamId(const std::string& text, uint32_t& id);

// A random ID that is not 0.
uint32_t RandomStreamId();

// "HOST" or "HOST:PORT"; without a port `port` stays.
bool ParseHost(const std::string& text, std::string& host, uint16_t& port);

} // namespace arqrx
