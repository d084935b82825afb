#pragma once

#include <cstdint>

#include "arq/rebuild_mark.h"
#include "arq/wire.h"
#include "input/packet_buffer.h"

// What an engine with header building sends for one slot of its ring: the RTP header and a record of two
// parts, the header and the payload. It is rebuilt in place when the slot's turn comes again.
//
// Threads: a sending thread rebuilds it between mark.Begin and mark.End and sends the record itself; the
// listen thread never sends or changes it, only a ResendCopy.
struct BuiltPacket {
    void FillRecord(uint8_t* payload, int32_t length);
    void FillHeader(uint16_t seq, uint32_t timestampTicks, uint32_t ssrc);

    PacketBuffer record;
    MediaHeader header;
    RebuildMark mark;
};
static_assert(sizeof(BuiltPacket) == sizeof(PacketBuffer) + sizeof(MediaHeader) + sizeof(uint32_t));

// A packet of its own for one resend: header and record are copied, the payload is the built packet's. Lives
// on the stack of the thread that sends it. May be a mixture until the mark has said otherwise.
struct ResendCopy {
    explicit ResendCopy(const BuiltPacket& built);
    ResendCopy(const ResendCopy&) = delete;
    ResendCopy& operator=(const ResendCopy&) = delete;

    MediaHeader header;
    PacketBuffer record {}; // points to `header`
};

// Whether a slot's packet was rebuilt since the watch began. Null for a packet that is not rebuilt in place:
// then it never was.
class RebuildWatch {
public:
    explicit RebuildWatch(BuiltPacket* built) : m_pBuilt(built), m_nCount(built ? built->mark.Read() : 0) {}

    BuiltPacket* Built() const { return m_pBuilt; }
    bool WasRebuilt() const { return m_pBuilt != nullptr && !m_pBuilt->mark.IsStill(m_nCount); }

private:
    BuiltPacket* m_pBuilt;
    uint32_t m_nCount;
};
