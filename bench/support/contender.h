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
        PROXY, // tx_proxy at `program` with `words`, the receivers in -a
        LEARNT, // the same, the receivers have pinged
    };
    std::string name;
    Kind kind;
    std::string program;
    std::vector<std::string> words;
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
    uint16_t InputPort() const { return m_usInputPort; }

    // Keeps learnt receivers alive; to be called every few seconds at least.
    void StayKnown();

private:
    std::vector<std::string> CommandLine(const Entry& entry);
    void WaitUntilForwarding();

    std::string m_name;
    Outlet& m_outlet;
    int32_t m_nReceivers;
    uint16_t m_usInputPort;
    uint16_t m_usDestPort;
    bool m_bLearnt;
    int m_nInstance = 0; // of a proxy
    std::unique_ptr<Child> m_pChild;
};
