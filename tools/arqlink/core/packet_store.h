#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace arqlink {

// The memory of what is under way, shared by several lines and limited: so many bytes and no more, whatever comes.
// Buffers are used again, so that a line that runs takes no memory from the system.
// Threads: one object and all its lines are one thread's own.
class PacketStore {
public:
    explicit PacketStore(size_t limitBytes = 64U << 20) : m_nLimit(limitBytes) {}

    // A copy of the bytes. False: the store is full and `copy` as it was.
    bool Take(std::span<const uint8_t> bytes, std::vector<uint8_t>& copy);
    // What Take gave leaves the store: it counts no longer and is its holder's own.
    void Leave(const std::vector<uint8_t>& copy) { m_nUsed -= Cost(copy); }
    // A buffer that nobody needs, from here or elsewhere, may hold a later copy. It is empty then.
    void Recycle(std::vector<uint8_t>& buffer);

    size_t UsedBytes() const { return m_nUsed; }

private:
    static size_t Cost(const std::vector<uint8_t>& buffer);

    size_t m_nLimit;
    size_t m_nUsed = 0; // of what was taken and has not left; the spare buffers are few and small
    std::vector<std::vector<uint8_t>> m_spare;
};

} // namespace arqlink
