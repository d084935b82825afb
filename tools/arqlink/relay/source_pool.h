#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <string_view>

namespace arqlink {

// The addresses from which clients go upstream: one for all, or for each its own out of a range, so that the target can
// tell receivers apart that name themselves by no stream ID.
class SourcePool {
public:
    // The system chooses, for all.
    SourcePool() = default;
    // This one, for all.
    explicit SourcePool(uint32_t address) : m_nFirst(address) {}
    // "127.9.0.0/24": its addresses without the first and the last. False: `problem` says why, as a sentence without its
    // full stop.
    bool Parse(std::string_view text, std::string& problem);

    // The lowest that is free, 0 for the system's choice. False: all are taken.
    bool Take(uint32_t& address);
    void Give(uint32_t address) { m_taken.erase(address); }

private:
    uint32_t m_nFirst = 0;
    uint32_t m_nCount = 0; // 0: not a range
    std::set<uint32_t> m_taken;
};

} // namespace arqlink
