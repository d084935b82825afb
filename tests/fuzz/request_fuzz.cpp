// Any datagram on the request port, taken the way from the listener to the engine: a pool slice with a tail of
// zeroes behind the pool, the tag read and stripped, the rest classified and answered from a filled ring.
// The first byte of the input chooses how far the clock stands behind the stored packets.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "arq/c_arq_send.h"
#include "arq/c_arq_send_cb.h"
#include "arq/datagram_kind.h"
#include "arq/media_header.h"
#include "arq/wire.h"
#include "input/packet_buffer.h"
#include "support/fixed_clock.h"

namespace {

constexpr uint32_t RING_SIZE = 256;
constexpr uint32_t POOL_TAIL_BYTES = 131072;
constexpr uint32_t START_TICKS = 0xFFFFFF00; // the clock wraps while packets age
constexpr int32_t MEDIA_BYTES = 1328;

void Require(bool condition)
{
    if (!condition)
        std::abort();
}

// What is sent is an echo of the datagram that came, or a whole media packet that was sent before.
class CheckingCallback : public CArqSendCB {
public:
    int SendData(PacketBuffer* packet) override
    {
        ++m_nSent;
        Require(packet->partCount == 1);
        if (packet == m_pRequest) {
            Require(packet->Length() >= 4 && packet->Length() < ARQ_REQUEST_BYTES);
            return 1;
        }
        Require(packet->Length() == MEDIA_BYTES);
        const MediaHeader& header = HeaderOf(*packet);
        Require((header.payloadType.Get() & 0x7F) == RETRANSMIT_PAYLOAD_TYPE);
        return 1;
    }
    const PacketBuffer* m_pRequest = nullptr;
    uint32_t m_nSent = 0;
};

// One round of sequence numbers around their wrap; every other packet carries the marker.
void FillRing(CArqSend& engine, PacketBufferPool& media)
{
    for (uint32_t i = 0; i < RING_SIZE; ++i) {
        PacketBuffer* packet = media.get();
        MediaHeader& header = HeaderOf(*packet);
        header.flags.Set(RTP_VERSION_FLAGS);
        header.payloadType.Set(static_cast<uint8_t>(MEDIA_PAYLOAD_TYPE | (i << 7)));
        header.seq.Set(static_cast<uint16_t>(i - RING_SIZE / 2));
        header.timestamp.Set(START_TICKS);
        packet->SetLength(MEDIA_BYTES);
        engine.StoreSent(packet);
    }
}

void StripTag(PacketBuffer& packet)
{
    const int32_t length = packet.Length() - STREAM_TAG_BYTES;
    std::memmove(packet.Data(), packet.Data() + STREAM_TAG_BYTES, static_cast<size_t>(length));
    packet.SetLength(length);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0)
        return 0;
    // Once for all inputs; what an input leaves behind in them is overwritten for the next.
    static const auto media = PacketBufferPool::createDefault(RING_SIZE);
    static const auto requests = PacketBufferPool::create(1, PacketBufferPool::SLICE_BYTES, POOL_TAIL_BYTES);
    test_support::FixedClock clock(START_TICKS + data[0] * 256U);
    CheckingCallback callback; // owns the engine
    bool ok = true;
    auto* engine = new CArqSend(ok, &clock, &callback, 2, 200, RING_SIZE, 8000000, false);
    Require(ok && media && requests);
    FillRing(*engine, *media);

    PacketBuffer* packet = requests->get();
    const size_t length = size - 1 < PacketBufferPool::SLICE_BYTES ? size - 1 : PacketBufferPool::SLICE_BYTES;
    std::memset(packet->Data(), 0, PacketBufferPool::SLICE_BYTES);
    std::memcpy(packet->Data(), data + 1, length);
    packet->SetLength(static_cast<int32_t>(length));
    callback.m_pRequest = packet;

    const StreamTagInfo tag = ReadStreamTag(packet->Data(), packet->Length());
    Require(tag.streamId == 0 || packet->Length() >= STREAM_TAG_BYTES);
    if (tag.streamId != 0)
        StripTag(*packet);
    const RequestKind kind = ClassifyRequest(packet->Data(), packet->Length());
    const uint32_t result = engine->ProcessBuffer(packet);
    Require(result <= 1);
    Require(kind != RequestKind::Other || (result == 1 && callback.m_nSent == 0));
    Require(kind != RequestKind::Ping || (result == 1 && callback.m_nSent == 1));
    Require(kind != RequestKind::BadPing || (result == 0 && callback.m_nSent == 0));
    Require(result == 1 || callback.m_nSent == 0);
    ArqSendStats stats {};
    engine->GetStats(&stats);
    Require(kind != RequestKind::Request || stats.retransmitted == callback.m_nSent);
    Require(callback.m_nSent <= RING_SIZE);
    return 0;
}
