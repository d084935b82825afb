#include "replicator/request_router.h"

#include <cstring>

#include "arq/arq_send.h"
#include "arq/wire.h"
#include "input/packet_buffer.h"
#include "replicator/my_arq_send_cb.h"
#include "replicator/stream_table.h"

namespace {

// The tag is told by its stream ID: one with ID 0 is left where it is.
void StripTag(PacketBuffer* packet)
{
    const int32_t length = packet->Length() - STREAM_TAG_BYTES;
    std::memmove(packet->Data(), packet->Data() + STREAM_TAG_BYTES, static_cast<size_t>(length));
    packet->SetLength(length);
}

} // namespace

void RouteRequest(const StreamTable& table, PacketBuffer* packet, in_addr_t addressNet, uint32_t streamId,
    const RequestTime& time)
{
    const StreamTable::View view(table);
    MyArqSendCB* stream = view.Find(addressNet, streamId);
    if (stream == nullptr)
        return;
    if (stream->m_quota.IsSpent(time.nowMs) && time.isCrowded)
        return;
    if (streamId != 0)
        StripTag(packet);
    ArqSend& engine = *stream->m_pEngine;
    const uint32_t workBefore = engine.Work();
    (void)engine.ProcessBuffer(packet);
    stream->m_quota.Charge(engine.Work() - workBefore);
}
