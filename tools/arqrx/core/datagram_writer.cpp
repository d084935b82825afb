#include "arqrx/core/datagram_writer.h"

#include "arq/wire.h"
#include "arqrx/core/datagram_kind.h"

namespace arqrx {

// Room for a record of `bytes` behind the tag.
uint8_t* DatagramWriter::Begin(uint32_t magic, size_t bytes)
{
    size_t tagBytes = 0;
    if (m_nStreamId != 0) {
        auto* tag = reinterpret_cast<StreamTag*>(m_bytes.data());
        tag->magic.Set(magic);
        tag->streamId.Set(m_nStreamId);
        tagBytes = sizeof(StreamTag);
    }
    m_nBytes = tagBytes + bytes;
    return m_bytes.data() + tagBytes;
}

// Any datagram is a ping; this one is told from other programs' by who looks at the traffic.
std::span<const uint8_t> DatagramWriter::Ping()
{
    auto* ping = reinterpret_cast<ArqPing*>(Begin(STREAM_TAG_MAGIC, sizeof(ArqPing)));
    ping->zero.Set(0);
    ping->id.Set(ARQ_PING_ID);
    return { m_bytes.data(), m_nBytes };
}

// With a stream ID the tag itself is the message; without, its first word alone.
std::span<const uint8_t> DatagramWriter::Leave()
{
    (void)Begin(STREAM_LEAVE_MAGIC, 0);
    if (m_nStreamId == 0) {
        reinterpret_cast<Host32*>(m_bytes.data())->Set(STREAM_LEAVE_MAGIC);
        m_nBytes = sizeof(Host32);
    }
    return { m_bytes.data(), m_nBytes };
}

std::span<const uint8_t> DatagramWriter::Echo(uint64_t number)
{
    auto* ping = reinterpret_cast<ArqPing*>(Begin(STREAM_TAG_MAGIC, sizeof(ArqPing) + ECHO_DATA_BYTES));
    ping->zero.Set(0);
    ping->id.Set(ARQ_PING_ID);
    auto* data = reinterpret_cast<uint8_t*>(ping + 1);
    for (size_t i = ECHO_DATA_BYTES; i > 0; --i, number >>= 8)
        data[i - 1] = static_cast<uint8_t>(number);
    return { m_bytes.data(), m_nBytes };
}

std::span<const uint8_t> DatagramWriter::Request(
    std::span<const uint16_t> numbers, const RequestWindow& window)
{
    const size_t bytes = sizeof(ArqRequest) + numbers.size() * sizeof(Host16);
    auto* request = reinterpret_cast<ArqRequest*>(Begin(STREAM_TAG_MAGIC, bytes));
    auto* list = reinterpret_cast<Host16*>(request + 1);
    uint16_t sum = 0;
    for (size_t i = 0; i < numbers.size(); ++i) {
        list[i].Set(numbers[i]);
        sum = static_cast<uint16_t>(sum + numbers[i]);
    }
    request->seqCount.Set(static_cast<uint16_t>(numbers.size()));
    request->checksum.Set(static_cast<uint16_t>(-sum));
    request->arqRetries.Set(window.retries);
    request->arqIntervalMs.Set(window.intervalMs);
    request->arqExtraMs.Set(window.extraMs);
    return { m_bytes.data(), m_nBytes };
}

} // namespace arqrx
