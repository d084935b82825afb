#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace arqrx {

// Where the proxy is. Its name is looked up at the start and, on a thread of its own, whenever it is silent: it may have
// moved. Threads: one thread's own; the look-up's thread shares nothing but a record that outlives both.
class ProxyAddress {
public:
    // Waits for the answer. False with the reason in `problem`, as the end of a sentence.
    bool LookUp(const std::string& host, std::string& problem);
    // Begins another look-up, if none is on its way. Nothing to do for a dotted quad.
    void LookUpAgain();
    // Takes what that look-up has found; true when it is another address than before.
    bool HasMoved();

    uint32_t Address() const { return m_address; } // the machine's byte order

private:
    struct Search; // one look-up

    std::string m_host;
    uint32_t m_address = 0;
    std::shared_ptr<Search> m_search;
};

} // namespace arqrx
