#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>

#include "base/plain_word.h"

// One packet: a descriptor of one to four pieces of memory that together are one datagram. It owns none
// of them.
//
// Threads: a packet in a retransmission ring is read by the thread that answers requests while the
// sending threads may already reuse the descriptor, so the words that change are plain shared words.
struct PacketBuffer {
    static constexpr uint32_t MAX_PARTS = 4;

    uint32_t userWords[4]; // free for a holder's own use; the pool never touches them
    PlainWord<uint32_t> partCount; // 1 to 4; 0 until the pool has handed the buffer out
    PlainWord<uint8_t*> parts[MAX_PARTS]; // start of each piece; a pool buffer's part 0 is its own slice
    PlainWord<int32_t> partLengths[MAX_PARTS]; // bytes
    uint32_t userWord; // as userWords

    // Bytes of the whole datagram; 0 when the part count is 0 or above 4.
    int32_t TotalLength() const
    {
        const uint32_t count = partCount;
        if (count > MAX_PARTS)
            return 0;
        int32_t length = 0;
        for (uint32_t i = 0; i < count; ++i)
            length += partLengths[i];
        return length;
    }

    uint8_t* Data() const { return parts[0]; }
    int32_t Length() const { return partLengths[0]; }
    void SetLength(int32_t length) { partLengths[0] = length; }
};

// A fixed ring of packet buffers over one block of data slices. Buffers are handed out in strict ring
// order and never given back: one is reused when the ring comes round, whether or not its last holder
// has finished. Whoever creates a pool makes it larger than the number of packets anyone still refers to.
//
// Threads: one thread calls get; everyone else only holds the buffers.
class PacketBufferPool {
public:
    static constexpr uint32_t SLICE_BYTES = 1536;

    // A pool of `count` buffers of `sliceSize` bytes each, or null when memory is short. `tailBytes` of
    // zeroed memory follow the last slice, for readers that may run past the end of a datagram.
    static std::unique_ptr<PacketBufferPool> create(
        uint32_t count, uint32_t sliceSize, uint32_t tailBytes = 0);

    // create() with slices of 1536 bytes, the size of every pool in this program.
    static std::unique_ptr<PacketBufferPool> createDefault(uint32_t count)
    {
        return create(count, SLICE_BYTES);
    }

    // The next buffer of the ring, with its part count set to 1. Never fails and never blocks, but
    // must not be called on a pool of 0 buffers. Part length 0 still holds the length of the datagram that
    // was here before.
    PacketBuffer* get();

    uint32_t Count() const { return m_nCount; }

private:
    struct FreeDeleter {
        void operator()(void* block) const { std::free(block); }
    };
    template <typename T>
    using Block = std::unique_ptr<T[], FreeDeleter>;

    PacketBufferPool() = default;
    bool Allocate(uint32_t count, uint32_t sliceSize, uint32_t tailBytes);
    void InitialiseDescriptors(uint32_t sliceSize);

    uint32_t m_nNext = 0; // index of the buffer that get hands out next
    uint32_t m_nCount = 0;
    Block<uint8_t> m_data; // count slices, then the tail
    Block<PacketBuffer> m_descriptors;
    Block<PacketBuffer*> m_buffers;
};
