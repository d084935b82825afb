#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "child.h"
#include "udp.h"

// The proxy's own binary, running with configured streams to the first `nReceivers` receivers.
class ProxyRun {
public:
    // `inputPort` is where it listens for the stream. Returns once the receivers get what is sent there.
    ProxyRun(Receivers& receivers, uint16_t inputPort, const std::vector<std::string>& moreOptions = {});
    ProxyRun(const ProxyRun&) = delete;
    ProxyRun& operator=(const ProxyRun&) = delete;
    ~ProxyRun();

    const Child& Process() const { return *m_pChild; }
    sockaddr_in RequestAddress() const { return LoopbackAddress(m_usRequestPort); }

private:
    int m_nInstance;
    uint16_t m_usRequestPort;
    std::unique_ptr<Child> m_pChild;
};

// Sends datagrams to `inputPort` until the last of the receivers gets one. Gives up after 15 s.
void WaitUntilForwarding(const Child& child, Receivers& receivers, uint16_t inputPort);
