#pragma once

#include <cstdint>
#include <string>

#include "arqrx/program/proxy_address.h"
#include "arqrx/program/report_address.h"
#include "common/udp_socket.h"

namespace arqrx {

// Sends reports as datagrams to the server that gathers them, and never waits for it. What the system refuses is left
// out; the first refusal is kept for people. A server with a name may move: it is looked up again once a minute.
// Threads: one thread's own, which is not the media thread.
class ReportSender {
public:
    // Looks the server up, which can take seconds. `local`: from where the proxy is spoken to, 0 for anywhere; reports
    // leave by it where they can, so that the server knows which of the proxy's receivers they are of.
    // False with a sentence in `problem`.
    bool Open(const ReportAddress& server, uint32_t local, std::string& problem);
    bool IsOpen() const { return m_socket.IsOpen(); }

    // An empty text is not sent.
    void Send(const std::string& text, int64_t nowUs);
    // Why the first that was refused did not go, as a sentence with a line feed; once, then empty.
    std::string TakeProblem();

private:
    bool Connect(std::string& problem);
    void Reconnect();
    void Follow(int64_t nowUs);
    bool TrySend(const std::string& text) const;

    ReportAddress m_server;
    ProxyAddress m_address; // of the server
    uint32_t m_nLocal = 0;
    common::UdpSocket m_socket;
    int64_t m_nLookedUpUs = 0;
    std::string m_problem; // not told yet
    bool m_bTold = false;
};

} // namespace arqrx
