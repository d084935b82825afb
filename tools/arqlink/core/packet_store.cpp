#include "arqlink/core/packet_store.h"

#include <algorithm>
#include <utility>

namespace arqlink {

namespace {

constexpr size_t RECORD_BYTES = 128; // what a line and the allocator keep beside a packet's bytes
constexpr size_t USUAL_BYTES = 2048; // a buffer's room at least, so that each serves the next packet
constexpr size_t LARGEST_SPARE_BYTES = USUAL_BYTES;
constexpr size_t MOST_SPARE = 1024;

} // namespace

size_t PacketStore::Cost(const std::vector<uint8_t>& buffer)
{
    return buffer.capacity() + RECORD_BYTES;
}

bool PacketStore::Take(std::span<const uint8_t> bytes, std::vector<uint8_t>& copy)
{
    if (m_nUsed + std::max(bytes.size(), USUAL_BYTES) + RECORD_BYTES > m_nLimit)
        return false;
    std::vector<uint8_t> buffer;
    if (!m_spare.empty()) {
        buffer = std::move(m_spare.back());
        m_spare.pop_back();
    }
    buffer.reserve(std::max(bytes.size(), USUAL_BYTES));
    buffer.assign(bytes.begin(), bytes.end());
    m_nUsed += Cost(buffer);
    copy = std::move(buffer);
    return true;
}

void PacketStore::Recycle(std::vector<uint8_t>& buffer)
{
    if (buffer.capacity() > 0 && buffer.capacity() <= LARGEST_SPARE_BYTES && m_spare.size() < MOST_SPARE)
        m_spare.push_back(std::move(buffer));
    buffer = std::vector<uint8_t>();
}

} // namespace arqlink
