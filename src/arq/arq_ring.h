#pragma once

#include <cstdint>
#include <memory>

#include "base/plain_word.h"
#include "input/packet_buffer.h"

// One remembered packet. 16 bytes: fifty streams of 4096 slots are most of what the proxy keeps resident,
// so the flag of each slot stands in an array of its own beside them.
struct ArqSlot {
    PublishedPtr<PacketBuffer> packet; // null when empty; not owned
    PlainWord<uint32_t> resendNotBeforeTicks; // earliest time of the next resend
    PlainWord<uint32_t> timestampTicks; // when the packet was sent first
};
static_assert(sizeof(ArqSlot) == 16);

// Puts a packet into a slot. The pointer goes last: a reader that sees the new packet also sees its time
// and a cleared flag. A template so that a test can watch the order.
template <typename Slot, typename Flag>
void FillSlot(Slot& slot, Flag& isRetransmitted, PacketBuffer* packet, uint32_t timestampTicks)
{
    slot.resendNotBeforeTicks = 0;
    slot.timestampTicks = timestampTicks;
    isRetransmitted = false;
    slot.packet.Store(packet);
}

// The retransmission ring of one engine: N slots, a power of two, indexed by sequence number AND (N - 1).
//
// Threads: sending threads store, the listen thread looks up and marks, without a lock. A slot may be
// overwritten while it is looked at; whoever reads takes the packet pointer first and then compares the
// sequence number in the packet's header.
class ArqRing {
public:
    // Clears ok when memory is short.
    ArqRing(bool& ok, uint32_t size);

    // Puts the packet into its slot, whatever that held.
    void Store(uint16_t seq, PacketBuffer* packet, uint32_t timestampTicks);

    ArqSlot& Slot(uint16_t seq) { return m_slots[Index(seq)]; }

    // Whether the packet has been sent again since it was stored.
    bool IsRetransmitted(uint16_t seq) const { return m_retransmitted[Index(seq)]; }
    void SetRetransmitted(uint16_t seq) { m_retransmitted[Index(seq)] = true; }

    // Empties every slot.
    void Clear();

    uint32_t Index(uint16_t seq) const { return seq & m_nMask; }
    uint32_t Size() const { return m_nSize; }

private:
    uint32_t m_nSize;
    uint32_t m_nMask;
    std::unique_ptr<ArqSlot[]> m_slots;
    std::unique_ptr<PlainWord<bool>[]> m_retransmitted; // one flag a slot
};
