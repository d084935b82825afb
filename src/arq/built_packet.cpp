#include "arq/built_packet.h"

#include "base/rtp.h"

namespace {

void PointTo(PacketBuffer& record, MediaHeader& header, uint8_t* payload, int32_t length)
{
    record.partCount = 2;
    record.parts[0] = reinterpret_cast<uint8_t*>(&header);
    record.partLengths[0] = RTP_HEADER_BYTES;
    record.parts[1] = payload;
    record.partLengths[1] = length;
}

} // namespace

void BuiltPacket::FillRecord(uint8_t* payload, int32_t length)
{
    PointTo(record, header, payload, length);
}

void BuiltPacket::FillHeader(uint16_t seq, uint32_t timestampTicks, uint32_t ssrc)
{
    header.flags.Set(RTP_VERSION_FLAGS);
    header.payloadType.Set(MEDIA_PAYLOAD_TYPE);
    header.seq.Set(seq);
    header.timestamp.Set(timestampTicks);
    header.ssrc.Set(ssrc);
}

// Member by member: a plain copy would race with a rebuild.
ResendCopy::ResendCopy(const BuiltPacket& built)
{
    header.flags.Set(built.header.flags.Get());
    header.payloadType.Set(built.header.payloadType.Get());
    header.seq.Set(built.header.seq.Get());
    header.timestamp.Set(built.header.timestamp.Get());
    header.ssrc.Set(built.header.ssrc.Get());
    PointTo(record, header, built.record.parts[1], built.record.partLengths[1]);
}
