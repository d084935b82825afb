#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "arqrx/core/datagram_kind.h"

namespace arqrx {

// Blocks that hold a datagram each. They are taken from the system in pieces as they are needed, and kept.
class BlockPool {
public:
    static constexpr size_t BLOCK_BYTES = MOST_DATAGRAM_BYTES;

    explicit BlockPool(size_t most) : m_nMost(most) {}

    // A block, or null when as many are out as may be or there is no memory.
    uint8_t* Take();
    void Give(uint8_t* block);
    size_t Out() const { return m_nOut; }

private:
    static constexpr size_t PIECE_BLOCKS = 64;
    bool AddPiece();

    std::vector<std::unique_ptr<uint8_t[]>> m_pieces;
    std::vector<uint8_t*> m_free;
    size_t m_nMost;
    size_t m_nOut = 0;
};

} // namespace arqrx
