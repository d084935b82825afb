#include "request_datagram.h"

#include "arq/wire.h"

std::vector<uint8_t> RequestDatagram(uint16_t first, uint16_t count)
{
    constexpr uint16_t RETRIES = 59; // with the interval: a minute
    constexpr uint16_t INTERVAL_MS = 1000;
    std::vector<uint8_t> bytes(static_cast<size_t>(ARQ_REQUEST_BYTES) + 2 * size_t { count });
    auto* request = reinterpret_cast<ArqRequest*>(bytes.data());
    auto* list = reinterpret_cast<Host16*>(bytes.data() + ARQ_REQUEST_BYTES);
    uint16_t sum = 0;
    for (uint16_t i = 0; i < count; ++i) {
        const auto seq = static_cast<uint16_t>(first + i);
        list[i].Set(seq);
        sum = static_cast<uint16_t>(sum + seq);
    }
    request->seqCount.Set(count);
    request->checksum.Set(static_cast<uint16_t>(0U - sum));
    request->arqRetries.Set(RETRIES);
    request->arqIntervalMs.Set(INTERVAL_MS);
    request->arqExtraMs.Set(0);
    return bytes;
}
