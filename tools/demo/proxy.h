#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "demo/child.h"
#include "demo/view.h"

namespace demo {

constexpr uint32_t LOOPBACK = 0x7F000001; // 127.0.0.1

// The ports of one instance of the proxy, its lock port included. The blocks lie below the kernel's ephemeral ports.
struct ProxyPorts {
    int instance;
    uint16_t input; // RTP from the source
    uint16_t ping; // -p
    uint16_t request; // -r
    uint16_t relay; // where an encoder of ours sends to; the one above it is its RTCP

    explicit ProxyPorts(int number);
    std::vector<uint16_t> All() const;
};

// Instances of which no port is in use on this machine or in this sandbox, beginning at another one for each process.
std::vector<int> FreeInstances();

std::string ControlPath(int instance); // of the socket on which that proxy takes commands

// Reads the answer to the command "AllStats"; nothing if it is not that.
std::optional<ProxyFigures> ParseProxyFigures(const std::string& reply);

// The proxy, a child of ours. Threads: one.
class Proxy {
public:
    // What became of a start so far.
    enum class State : uint8_t { Starting, Ready, Taken, Ended }; // Taken: another proxy has the instance

    bool Start(const std::string& binary, const ProxyPorts& ports);
    State Look(); // reads what it said
    // Whether it has logged this about the receiver at that address.
    bool HasServed(const char* what, const std::string& address) const;

    // Once a second: asks for its figures; each step of it is done here and nothing waits.
    void AskFigures(int64_t nowUs);
    void ReadFigures();
    const std::optional<ProxyFigures>& Figures() const { return m_figures; }
    int ControlFd() const { return m_control.Get(); } // to poll for reading; -1: nothing asked

    Child& Process() { return m_child; }
    std::string HowItEnded();

private:
    Child m_child;
    std::vector<std::string> m_readyLines;
    UniqueFd m_control;
    std::string m_reply;
    std::optional<ProxyFigures> m_figures;
    int64_t m_nNextAskUs = 0;
    int m_nInstance = 0;
};

} // namespace demo
