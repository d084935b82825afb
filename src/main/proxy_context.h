#pragma once

#include <netinet/in.h>

#include <cstdint>

#include "base/plain_word.h"
#include "control/control_context.h"
#include "main/encryption_plugin.h"
#include "replicator/default_settings.h"

class ArqSendReplicator;
class PacketQueue;

// The run context: the settings of the command line and the parts of the running proxy. Main owns it for
// the whole run.
//
// Threads: main fills it before the input thread and the control thread start; afterwards each word below
// has the writers that its comment names.
struct ProxyContext {
    ProxyContext() = default;
    ProxyContext(const ProxyContext&) = delete; // the control thread's part refers to the run flag beside it
    ProxyContext& operator=(const ProxyContext&) = delete;

    // Main sets it; the main loop, the input thread and the control thread run while it is not 0.
    PlainWord<int32_t> running { 0 };
    uint16_t listenPort = 0; // UDP port of the input stream
    uint16_t destPort = DEFAULT_DEST_PORT; // UDP port of the output streams
    uint16_t arqRequestPort = DEFAULT_ARQ_REQUEST_PORT; // where receivers' requests arrive
    uint16_t unicastUdpPort = 0; // 0: none
    int32_t startTime = 0; // seconds since the epoch when the threads were started; UDP input mode only
    int32_t grossMediaBitrate = DEFAULT_GROSS_MEDIA_BITRATE; // bit/s
    int32_t udpInputMode = 0;
    in_addr_t multicastGroup = 0; // network order; 0: none
    ArqSendReplicator* replicator = nullptr; // owned by main's run
    const char* destAddress = ""; // destinations as given, of any length; the command line's own text
    PacketQueue* queue = nullptr; // owned by main's run
    int32_t instance = 1;
    int32_t instanceCopy = 0; // as it was when the replicator was built
    ControlContext control { running }; // the control thread's part
    // Sender of the first input datagram, as a dotted quad; the input thread writes it once.
    char sourceAddress[INET_ADDRSTRLEN] = "";
    PlainWord<uint32_t> inputBytes { 0 }; // with Ethernet, IPv4 and UDP headers; the input thread adds
    // Microseconds since the epoch when the threads had been started; main
    // writes it once, nobody else reads it.
    int64_t startTimeUs = 0;
    EncryptionPlugin plugin;
};
