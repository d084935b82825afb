#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <vector>

#include "arq/wire.h"
#include "input/packet_buffer.h"

namespace test_support {

using Bytes = std::vector<uint8_t>;

inline Bytes Concat(std::initializer_list<Bytes> pieces)
{
    Bytes whole;
    for (const Bytes& piece : pieces)
        whole.insert(whole.end(), piece.begin(), piece.end());
    return whole;
}

// `length` bytes that differ from one seed to the next.
inline Bytes Payload(size_t length, uint8_t seed = 0)
{
    Bytes bytes(length);
    for (size_t i = 0; i < length; ++i)
        bytes[i] = static_cast<uint8_t>(seed + 7 * i);
    return bytes;
}

// The bytes of a packet, all of its parts in a row; what a receiver would get as one datagram.
inline Bytes BytesOf(const PacketBuffer& packet)
{
    Bytes bytes;
    const uint32_t count = packet.partCount;
    for (uint32_t i = 0; i < count && i < PacketBuffer::MAX_PARTS; ++i) {
        const uint8_t* part = packet.parts[i];
        bytes.insert(bytes.end(), part, part + packet.partLengths[i]);
    }
    return bytes;
}

// An RTP header with big-endian sequence number and timestamp and the SSRC in this machine's order.
inline Bytes RtpHeader(uint16_t seq, uint32_t timestamp = 0, uint32_t ssrc = 0x11223344,
    uint8_t payloadType = MEDIA_PAYLOAD_TYPE)
{
    Bytes header { 0x80, payloadType, static_cast<uint8_t>(seq >> 8), static_cast<uint8_t>(seq),
        static_cast<uint8_t>(timestamp >> 24), static_cast<uint8_t>(timestamp >> 16),
        static_cast<uint8_t>(timestamp >> 8), static_cast<uint8_t>(timestamp) };
    uint8_t ssrcBytes[sizeof(ssrc)];
    std::memcpy(ssrcBytes, &ssrc, sizeof(ssrc));
    header.insert(header.end(), ssrcBytes, ssrcBytes + sizeof(ssrc));
    return header;
}

// An RTP packet with `payloadBytes` of recognisable payload behind its header.
inline Bytes RtpPacket(uint16_t seq, uint32_t timestamp = 0, size_t payloadBytes = 20,
    uint8_t payloadType = MEDIA_PAYLOAD_TYPE, uint32_t ssrc = 0x11223344)
{
    return Concat(
        { RtpHeader(seq, timestamp, ssrc, payloadType), Payload(payloadBytes, static_cast<uint8_t>(seq)) });
}

// A packet buffer with memory of its own, of one part to begin with. Stays where it was made: an engine
// that has stored it points into it.
class TestPacket {
public:
    explicit TestPacket(const Bytes& bytes, size_t capacity = PacketBufferPool::SLICE_BYTES)
        : m_bytes(std::max(capacity, bytes.size()))
    {
        std::copy(bytes.begin(), bytes.end(), m_bytes.begin());
        m_buffer.partCount = 1;
        m_buffer.parts[0] = m_bytes.data();
        m_buffer.partLengths[0] = static_cast<int32_t>(bytes.size());
    }
    TestPacket(const TestPacket&) = delete;
    TestPacket& operator=(const TestPacket&) = delete;

    PacketBuffer* Get() { return &m_buffer; }
    PacketBuffer* operator->() { return &m_buffer; }
    uint8_t* Data() { return m_bytes.data(); }
    Bytes Contents() const { return BytesOf(m_buffer); }

private:
    Bytes m_bytes;
    PacketBuffer m_buffer {};
};

inline std::unique_ptr<TestPacket> MakePacket(const Bytes& bytes)
{
    return std::make_unique<TestPacket>(bytes);
}

// `bytes` in the pool's next buffer. Every pool of the program has slices of 1536 bytes.
inline PacketBuffer* TakeFilled(PacketBufferPool& pool, const Bytes& bytes)
{
    PacketBuffer* buffer = pool.get();
    std::copy(bytes.begin(), bytes.end(), buffer->Data());
    buffer->SetLength(static_cast<int32_t>(bytes.size()));
    return buffer;
}

// 16 bits as this machine stores them.
inline void AppendHost16(Bytes& bytes, uint16_t value)
{
    uint8_t raw[sizeof(value)];
    std::memcpy(raw, &value, sizeof(value));
    bytes.insert(bytes.end(), raw, raw + sizeof(value));
}

// The window that a request carries: retries, interval and extra delay, both in milliseconds.
struct RequestWindow {
    uint16_t retries = 2;
    uint16_t intervalMs = 200;
    uint16_t extraMs = 0;
};

// The checksum that makes a request right whose list bytes are `list`.
inline uint16_t RequestChecksum(const Bytes& list)
{
    uint32_t sum = 0;
    for (size_t i = 0; i + 1 < list.size(); i += 2) {
        uint16_t word = 0;
        std::memcpy(&word, &list[i], sizeof(word));
        sum += word;
    }
    if (list.size() % 2 != 0)
        sum += list.back();
    return static_cast<uint16_t>(0U - sum);
}

// A request whose count is `count`, whatever stands in the list bytes, with a right checksum.
inline Bytes RawRequest(uint16_t count, const Bytes& list, RequestWindow window = {})
{
    Bytes request;
    AppendHost16(request, count);
    AppendHost16(request, RequestChecksum(list));
    AppendHost16(request, window.retries);
    AppendHost16(request, window.intervalMs);
    AppendHost16(request, window.extraMs);
    return Concat({ request, list });
}

// A right request for these sequence numbers.
inline Bytes Request(const std::vector<uint16_t>& seqs, RequestWindow window = {})
{
    Bytes list;
    for (const uint16_t seq : seqs)
        AppendHost16(list, seq);
    return RawRequest(static_cast<uint16_t>(seqs.size()), list, window);
}

// A stream tag: magic and stream ID in this machine's byte order.
inline Bytes Tag(uint32_t magic, uint32_t streamId)
{
    Bytes tag(STREAM_TAG_BYTES);
    std::memcpy(tag.data(), &magic, sizeof(magic));
    std::memcpy(tag.data() + sizeof(magic), &streamId, sizeof(streamId));
    return tag;
}

} // namespace test_support
