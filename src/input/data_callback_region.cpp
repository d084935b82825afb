#include "input/data_callback_region.h"

#include "base/rtp.h"

DataRegion CallbackRegion(int32_t received, int32_t previousLength)
{
    constexpr int32_t TS_PACKET_BYTES = 188;
    if (received % TS_PACKET_BYTES == 0)
        return { 0, previousLength };
    if ((received - RTP_HEADER_BYTES) % TS_PACKET_BYTES == 0)
        return { TS_PACKET_BYTES, previousLength - TS_PACKET_BYTES };
    return { 0, 0 };
}
