#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "child.h"
#include "outlet.h"

// A way to forward a stream that stands beside others in a table.
struct Entry {
    enum class Kind {
        FLOOR, // bench/floors with `words`
        PROXY, // a tx_proxy with `words`, its receivers in -a
        LEARNT, // the same, its receivers have pinged
        PEER, // another program. In its words {input} is the input port, {clients} ADDRESS:PORT,... of all
        // receivers, {tee} the same for ffmpeg, {first} the first address, {link} a port of its own there
    };
    std::string name;
    Kind kind;
    std::string program; // its path
    std::vector<std::string> words;
    std::vector<std::string> receiver; // command line of a process that must answer it; empty: none
};

// An entry that runs, with ports of its own.
class Contender {
public:
    // Starts it and waits until it forwards to all `nReceivers`. Gives up when it does not.
    Contender(const Entry& entry, Outlet& outlet, int32_t nReceivers);
    Contender(const Contender&) = delete;
    Contender& operator=(const Contender&) = delete;
    ~Contender();

    const std::string& Name() const { return m_name; }
    const Child& Process() const { return *m_pChild; }
    // Everything that runs for this contender; Process() is the only one whose time is measured.
    std::vector<pid_t> Pids() const;

    int32_t ReceiverCount() const { return m_nReceivers; }
    uint16_t InputPort() const { return m_usInputPort; }
    uint16_t DestPort() const { return m_usDestPort; }
    uint16_t RequestPort() const { return m_usRequestPort; } // of a proxy

    // Between Rest and Work another program does not run: some of them talk to their receivers all the time,
    // which would be counted for whoever has its turn. The proxy and links that must be kept up are left
    // alone.
    void Rest() const;
    void Work() const;

    // Keeps learnt receivers alive; to be called every few seconds at least.
    void StayKnown();

private:
    std::vector<std::string> CommandLine(const Entry& entry);
    std::vector<std::string> Filled(const std::vector<std::string>& words) const;
    void WaitUntilForwarding();
    void WaitUntilSettled();

    std::string m_name;
    Outlet& m_outlet;
    int32_t m_nReceivers;
    uint16_t m_usInputPort;
    uint16_t m_usDestPort;
    uint16_t m_usLinkPort;
    uint16_t m_usRequestPort = 0;
    bool m_bLearnt;
    bool m_bMayRest;
    int m_nInstance = 0; // of a proxy
    std::unique_ptr<Child> m_pReceiver;
    std::unique_ptr<Child> m_pChild;
};
