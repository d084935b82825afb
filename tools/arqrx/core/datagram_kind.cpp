#include "arqrx/core/datagram_kind.h"

#include <algorithm>
#include <iterator>

#include "arq/wire.h"

namespace arqrx {

namespace {

constexpr uint8_t RTP_VERSION_MASK = 0xC0;

bool IsEcho(std::span<const uint8_t> datagram)
{
    if (datagram.size() != sizeof(ArqPing) + ECHO_DATA_BYTES)
        return false;
    const auto* ping = reinterpret_cast<const ArqPing*>(datagram.data());
    return ping->zero.Get() == 0 && ping->id.Get() == ARQ_PING_ID;
}

} // namespace

DatagramKind ClassifyDatagram(std::span<const uint8_t> datagram)
{
    if (std::ranges::equal(datagram, STOP_MESSAGE))
        return DatagramKind::Stop;
    if (IsEcho(datagram))
        return DatagramKind::Echo;
    if (datagram.size() < sizeof(MediaHeader) || datagram.size() > MOST_DATAGRAM_BYTES)
        return DatagramKind::Stranger;
    if ((datagram[0] & RTP_VERSION_MASK) != RTP_VERSION_FLAGS)
        return DatagramKind::Stranger;
    const bool isResend = (datagram[1] & ~RTP_MARKER_BIT) == RETRANSMIT_PAYLOAD_TYPE;
    return isResend ? DatagramKind::Resend : DatagramKind::Media;
}

MediaWords ReadMediaWords(std::span<const uint8_t> media)
{
    const auto* header = reinterpret_cast<const MediaHeader*>(media.data());
    const auto payloadType = static_cast<uint8_t>(header->payloadType.Get() & ~RTP_MARKER_BIT);
    return { header->seq.Get(), header->timestamp.Get(), header->ssrc.Get(), payloadType };
}

void RestorePayloadType(uint8_t* media, uint8_t payloadType)
{
    auto* header = reinterpret_cast<MediaHeader*>(media);
    header->payloadType.Set(static_cast<uint8_t>((header->payloadType.Get() & RTP_MARKER_BIT) | payloadType));
}

uint64_t ReadEchoData(std::span<const uint8_t> echo)
{
    uint64_t data = 0;
    for (const uint8_t byte : echo.subspan(sizeof(ArqPing), ECHO_DATA_BYTES))
        data = (data << 8) | byte;
    return data;
}

} // namespace arqrx
