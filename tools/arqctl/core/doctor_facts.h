#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "arqctl/core/kernel_text.h"
#include "arqctl/core/loss_watch.h"
#include "arqctl/core/pinger.h"
#include "arqctl/core/proxy_options.h"
#include "arqctl/core/statistics.h"

namespace arqctl {

// What the doctor looked at, before anything is judged. What could not be seen is empty: no right to it, or not there.

// As which user something runs, and what it may do.
struct UserFacts {
    uint32_t user = 0;
    std::vector<uint32_t> groups; // the first is its own
    bool mayWriteAnywhere = false; // CAP_DAC_OVERRIDE
    bool mayBindLowPorts = false; // CAP_NET_BIND_SERVICE
};

// A file or folder as its owner, mode and file system say.
struct FileFacts {
    bool isFolder = false;
    bool isSocket = false;
    bool isReadOnly = false; // the file system
    uint32_t mode = 0; // its twelve lower bits
    uint32_t user = 0;
    uint32_t group = 0;
};

// How the control socket answered.
enum class ControlState { Answers, NoFile, NobodyListens, NotAllowed, Silent, AnotherProgram };

struct ControlFacts {
    std::string path;
    ControlState state = ControlState::NoFile;
    std::optional<FileFacts> file;
};

// A network interface of the proxy's network.
struct InterfaceFacts {
    std::string name;
    bool isUp = false;
    bool isRunning = false; // has a carrier
    bool isMulticast = false;
    bool isLoopback = false;
    int sourceFilter = -1; // rp_filter in effect, 0 to 2; -1: not seen
    std::vector<uint32_t> groups; // that are joined on it, machine's byte order
};

// A socket with the process that holds it.
struct HeldSocket {
    UdpSocketFacts socket;
    bool isIpv6 = false;
    int pid = 0; // 0: not to be seen
    std::string name; // of the process
};

// What grows. Two looks tell of what happens now.
struct CountsLook {
    int64_t atUs = 0; // monotonic clock
    std::optional<Statistics> statistics;
    std::optional<UdpSocketFacts> input; // the input's socket
    uint64_t otherDrops = 0; // of the ping and the request port together
    std::optional<int64_t> clockOffsetUs; // wall clock less the monotonic one
    // Of the whole network:
    std::optional<uint64_t> sourceFilterDrops; // datagrams that rp_filter refused
    std::optional<uint64_t> closedPortDatagrams; // for UDP ports where nobody listens
    std::optional<uint64_t> unreachableMessages; // of ICMP, that came back
};

// What reached the proxy's network between the looks, seen before a firewall or the source filter may drop it.
struct ArrivalFacts {
    uint64_t input = 0; // datagrams for the input's port and group
    std::vector<Pinger> pingers; // each once
};

struct DestinationFacts {
    std::string text; // as -a has it
    std::vector<uint32_t> addresses; // that the name stands for today, machine's byte order; none: unknown
};

struct PortRange {
    uint16_t first = 0;
    uint16_t last = 0;
};

struct DoctorFacts {
    ProxyOptions options;
    bool areOptionsKnown = true; // false: its process is not to be seen
    bool isRunning = false; // false: it is to be started by the user that asks
    int pid = 0; // 0: running, but not to be seen
    char state = '\0'; // of the process: R, S, D, T ...
    UserFacts user; // of the proxy
    ControlFacts control;
    std::optional<FileFacts> deviceFolder; // /dev
    std::optional<FileFacts> runFolder; // /var/run

    bool isNetworkSeen = true; // the proxy's network is another, and may not be entered
    std::optional<uint64_t> receiveBufferLimit; // net.core.rmem_max, bytes
    std::optional<uint64_t>
        receiveBuffer; // of the input's socket, as the kernel counts: twice what was asked for
    std::vector<HeldSocket> sockets; // of the proxy's network
    std::vector<InterfaceFacts> interfaces;
    std::optional<std::string> defaultInterface; // of the default route; "" without one
    std::optional<std::string> inputGroupInterface; // where the route to the group leads; "" without one
    std::optional<std::string> outputGroupInterface;
    std::optional<std::string> sourceInterface; // where the route to the sender leads, with a sender
    std::string source; // the sender, as given
    std::optional<PortRange> ephemeralPorts;
    std::vector<PortRange> reservedPorts;
    std::string reservedPortsText; // as the kernel has it
    uint32_t firstUnprivilegedPort = 1024;
    std::optional<uint64_t> connections; // in the conntrack table
    std::optional<uint64_t> connectionsLimit;

    std::optional<uint64_t> descriptors; // open
    std::optional<uint64_t> descriptorsLimit;
    std::optional<bool> isLibraryLoaded; // running: mapped; else: installed
    std::vector<DestinationFacts> destinations;

    CountsLook first; // both empty for a proxy that is to be started
    CountsLook second;
    std::optional<ArrivalFacts> arrivals; // up to just before the second look
    std::optional<LossFinding> deliberateLoss; // as the counts told between the looks
    double expectedBitRate = 0; // bit/s of payload, given for a proxy that is to be started; 0: not known
    double expectedPayload = 1316; // bytes
};

// Between the two looks.
struct InputPace {
    double packets = 0; // a second
    double payloadBits = 0; // a second, RTP headers not included
    double packetBytes = 0; // of payload
};

// What the input brings: measured, or what was given; empty when neither is known, or nothing came in between.
std::optional<InputPace> PaceOf(const DoctorFacts& facts);

} // namespace arqctl
