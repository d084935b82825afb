#include "arqrx/core/block_pool.h"

#include <new>
#include <utility>

namespace arqrx {

uint8_t* BlockPool::Take()
{
    if (m_nOut == m_nMost || (m_free.empty() && !AddPiece()))
        return nullptr;
    uint8_t* block = m_free.back();
    m_free.pop_back();
    ++m_nOut;
    return block;
}

void BlockPool::Give(uint8_t* block)
{
    m_free.push_back(block); // never grows: AddPiece made room for all blocks there are
    --m_nOut;
}

bool BlockPool::AddPiece()
{
    std::unique_ptr<uint8_t[]> piece(new (std::nothrow) uint8_t[PIECE_BLOCKS * BLOCK_BYTES]);
    if (!piece)
        return false;
    m_free.reserve((m_pieces.size() + 1) * PIECE_BLOCKS);
    for (size_t i = 0; i < PIECE_BLOCKS; ++i)
        m_free.push_back(&piece[i * BLOCK_BYTES]);
    m_pieces.push_back(std::move(piece));
    return true;
}

} // namespace arqrx
