#include "arq/datagram_kind.h"

#include "arq/wire.h"

namespace {

bool IsEitherOrder(uint32_t word, uint32_t magic)
{
    return word == magic || word == __builtin_bswap32(magic);
}

} // namespace

StreamTagInfo ReadStreamTag(const uint8_t* data, int32_t length)
{
    if (length < STREAM_MAGIC_BYTES)
        return { 0, false };
    const auto* tag = reinterpret_cast<const StreamTag*>(data);
    const uint32_t magic = tag->magic.Get();
    const bool isLeave = IsEitherOrder(magic, STREAM_LEAVE_MAGIC);
    const bool isTag = length >= STREAM_TAG_BYTES && (isLeave || IsEitherOrder(magic, STREAM_TAG_MAGIC));
    return { isTag ? tag->streamId.Get() : 0, isLeave };
}

RequestKind ClassifyRequest(const uint8_t* data, int32_t length)
{
    if (length >= ARQ_REQUEST_BYTES)
        return RequestKind::Request;
    constexpr int32_t ZERO_WORD_BYTES = sizeof(ArqPing::zero);
    constexpr int32_t PING_HEADER_BYTES = sizeof(ArqPing);
    // What stands behind the end of a short datagram is left over from an older one and means nothing.
    const auto* ping = reinterpret_cast<const ArqPing*>(data);
    if (length < ZERO_WORD_BYTES || ping->zero.Get() != 0)
        return RequestKind::Other;
    return length >= PING_HEADER_BYTES && ping->id.Get() == ARQ_PING_ID ? RequestKind::Ping
                                                                        : RequestKind::BadPing;
}
