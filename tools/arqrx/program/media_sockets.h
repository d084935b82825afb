#pragma once

#include <poll.h>

#include <array>
#include <cstdint>
#include <functional>
#include <span>
#include <string>

#include "arqrx/core/receiver.h"
#include "arqrx/program/options.h"
#include "common/datagrams.h"
#include "common/udp_socket.h"

namespace arqrx {

// The sockets on which media arrive: one for unicast, from which the proxy is also pinged and asked, and one for the
// group if there is one. Threads: one opens them, then the media thread's own.
class MediaSockets {
public:
    using Taker = std::function<void(std::span<const uint8_t> datagram, int64_t nowUs)>;

    // False with a sentence in `problem`. `proxyAddress` is 0 without a proxy.
    bool Open(const Options& options, uint32_t proxyAddress, std::string& problem);

    // The proxy has another address from now on.
    void SetProxy(uint32_t address);
    // What is there, in turn, but no more than a pass may take.
    void Read(const Taker& take);
    void Send(const Transmit& transmit);
    // Waits for a datagram, for `other` to become readable or until `untilUs` of the monotonic clock.
    void Wait(int64_t untilUs, int other) const;

    // From where the proxy is spoken to; all 0 where nothing but a group is heard.
    common::Endpoint Local() const { return m_unicast.Local(); }
    uint64_t SendFailures() const { return m_nSendFailures; }
    // Datagrams that the kernel had no room for.
    uint64_t Drops() const;
    // Who is pinged, or asked where nobody is pinged; all 0 without a proxy.
    common::Endpoint Proxy() const { return m_pingTarget.port != 0 ? m_pingTarget : m_requestTarget; }

private:
    bool OpenUnicast(const Options& options, uint32_t proxyAddress, std::string& problem);
    bool OpenGroup(const Options& options, std::string& problem);
    void ReadSocket(int fd, const Taker& take);

    common::UdpSocket m_unicast;
    common::UdpSocket m_group;
    common::DatagramReader m_reader;
    common::Endpoint m_pingTarget; // port 0: nobody
    common::Endpoint m_requestTarget;
    uint64_t m_nSendFailures = 0;
};

} // namespace arqrx
