#include "input/packet_buffer.h"

#include <new>
#include <type_traits>

static_assert(std::is_trivially_destructible_v<PacketBuffer>); // the descriptor block is freed as raw memory

std::unique_ptr<PacketBufferPool> PacketBufferPool::create(
    uint32_t count, uint32_t sliceSize, uint32_t tailBytes)
{
    std::unique_ptr<PacketBufferPool> pool(new (std::nothrow) PacketBufferPool);
    if (!pool || !pool->Allocate(count, sliceSize, tailBytes))
        return nullptr;
    pool->InitialiseDescriptors(sliceSize);
    return pool;
}

bool PacketBufferPool::Allocate(uint32_t count, uint32_t sliceSize, uint32_t tailBytes)
{
    // malloc may answer a request for nothing with null: one spare byte tells an empty pool from a failure.
    const size_t sliceTotal = static_cast<size_t>(count) * sliceSize;
    // Slices are left untouched, so that they take real memory only once a datagram has been in them. So is a
    // tail: zeroed memory of that size comes untouched from the system.
    void* data = tailBytes == 0 ? std::malloc(sliceTotal + 1) : std::calloc(sliceTotal + tailBytes + 1, 1);
    m_data.reset(static_cast<uint8_t*>(data));
    if (!m_data)
        return false;
    m_descriptors.reset(static_cast<PacketBuffer*>(std::malloc(count * sizeof(PacketBuffer) + 1)));
    if (!m_descriptors)
        return false;
    m_buffers.reset(static_cast<PacketBuffer**>(std::malloc(count * sizeof(PacketBuffer*) + 1)));
    if (!m_buffers)
        return false;
    m_nCount = count;
    return true;
}

void PacketBufferPool::InitialiseDescriptors(uint32_t sliceSize)
{
    for (uint32_t i = 0; i < m_nCount; ++i) {
        PacketBuffer* buffer = new (&m_descriptors[i]) PacketBuffer;
        buffer->parts[0] = m_data.get() + static_cast<size_t>(i) * sliceSize;
        m_buffers[i] = buffer;
    }
}

PacketBuffer* PacketBufferPool::get()
{
    PacketBuffer* buffer = m_buffers[m_nNext];
    if (++m_nNext == m_nCount)
        m_nNext = 0;
    buffer->partCount = 1;
    return buffer;
}
