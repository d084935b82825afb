#pragma once

#include <cstdint>

#include "base/mutex.h"
#include "base/plain_word.h"
#include "input/packet_fifo.h"

struct PacketBuffer;

// The pacer's queue: a ring of packet pointers (not owned) that also counts the bytes queued.
//
// Threads: the submitting thread pushes and, on overflow, pops; the timer thread peeks and pops. Both
// locks are its own, the byte-count mutex before the ring mutex.
class PacketRing {
public:
    // Clears ok when memory is short; such a ring is always both full and empty.
    PacketRing(bool& ok, int32_t capacity);

    // Appends the packet; false when the ring is full. With `skipDuplicate` a packet that is already queued
    // is left where it is and the result is true.
    bool Push(PacketBuffer* packet, bool skipDuplicate = false) EXCLUDES(m_bytesMutex, m_ringMutex);

    // Takes the oldest packet; null when the ring is empty.
    PacketBuffer* Pop() EXCLUDES(m_bytesMutex, m_ringMutex);

    // The oldest packet, left in its place; null when the ring is empty.
    PacketBuffer* Peek() EXCLUDES(m_ringMutex);

    // Takes everything out. The buffers belong to their pool's ring, which reuses them by itself.
    void Discard();

    // Bytes of each packet that are not counted.
    void SetHeaderBytes(int32_t bytes) { m_nHeaderBytes = bytes; }

    // Bytes queued, each packet with its total length less the header bytes.
    int32_t Bytes() EXCLUDES(m_bytesMutex);
    int32_t Count() EXCLUDES(m_ringMutex);

private:
    bool Contains(const PacketBuffer* packet) EXCLUDES(m_ringMutex);
    bool Put(PacketBuffer* packet) EXCLUDES(m_ringMutex);
    PacketBuffer* Get() EXCLUDES(m_ringMutex);
    int32_t Counted(const PacketBuffer& packet) const;

    Mutex m_ringMutex;
    PacketFifo m_ring GUARDED_BY(m_ringMutex);
    Mutex m_bytesMutex ACQUIRED_BEFORE(m_ringMutex); // also makes each push and pop one step
    int32_t m_nBytes GUARDED_BY(m_bytesMutex) = 0;
    PlainWord<int32_t> m_nHeaderBytes { 0 }; // main sets it once, before it submits
};
