#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <deque>
#include <span>
#include <unordered_map>
#include <vector>

namespace simulation {

// What the proxy sent to a receiver under each number within the last seconds, as it is sent first. A number may have
// come from the source twice. Instead of the bytes a hash of them is kept.
class ArqrxSource {
public:
    explicit ArqrxSource(int64_t keptUs) : m_nKeptUs(keptUs) {}

    void Add(uint16_t seq, std::span<const uint8_t> bytes, int64_t nowUs)
    {
        while (!m_sent.empty() && nowUs - m_sent.front().atUs > m_nKeptUs)
            ForgetOldest();
        m_sent.push_back({ nowUs, seq, HashOf(bytes) });
        m_hashes.emplace(seq, m_sent.back().hash);
        m_lastUs[seq] = nowUs;
    }

    // When it was sent last; -1: not within the last seconds.
    int64_t SentUs(uint16_t seq) const { return m_hashes.contains(seq) ? m_lastUs[seq] : -1; }

    bool HasSent(uint16_t seq, std::span<const uint8_t> bytes) const
    {
        const auto [first, last] = m_hashes.equal_range(seq);
        return std::any_of(
            first, last, [hash = HashOf(bytes)](const auto& entry) { return entry.second == hash; });
    }

private:
    struct Sent {
        int64_t atUs;
        uint16_t seq;
        uint64_t hash;
    };

    void ForgetOldest()
    {
        const Sent oldest = m_sent.front();
        m_sent.pop_front();
        const auto [first, last] = m_hashes.equal_range(oldest.seq);
        m_hashes.erase(
            std::find_if(first, last, [&oldest](const auto& entry) { return entry.second == oldest.hash; }));
    }

    static uint64_t HashOf(std::span<const uint8_t> bytes)
    {
        uint64_t hash = bytes.size();
        while (!bytes.empty()) {
            const size_t some = std::min(bytes.size(), sizeof(uint64_t));
            uint64_t word = 0;
            std::memcpy(&word, bytes.data(), some);
            hash = (((hash << 27) | (hash >> 37)) ^ word) * 0x9E3779B97F4A7C15;
            bytes = bytes.subspan(some);
        }
        return hash;
    }

    const int64_t m_nKeptUs;
    std::deque<Sent> m_sent; // the oldest first
    std::unordered_multimap<uint16_t, uint64_t> m_hashes; // by number
    std::vector<int64_t> m_lastUs = std::vector<int64_t>(65536); // by number
};

} // namespace simulation
