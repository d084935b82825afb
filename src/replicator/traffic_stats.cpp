#include "replicator/traffic_stats.h"

#include "base/byte_order.h"

void ReceiveStats::Reset()
{
    m_nRxLoss = 0;
    m_nRxPackets = 0;
    m_bFirstRxPacket = true;
}

void ReceiveStats::CountSequence(uint16_t seq)
{
    if (m_bFirstRxPacket) {
        m_usExpectedSeq = seq;
        m_bFirstRxPacket = false;
    }
    const int16_t gap = SeqDiff(seq, m_usExpectedSeq);
    if (gap > 0)
        m_nRxLoss.Add(gap);
    m_usExpectedSeq = static_cast<uint16_t>(seq + 1);
}

void TransmitStats::Reset()
{
    m_nTxBitrate = 0;
    m_nTxPackets = 0;
}

uint32_t BitRate(uint32_t bytes, uint32_t nowUs, uint32_t thenUs)
{
    constexpr int64_t BITS_TIMES_US_PER_S = 8000000;
    const int32_t elapsedUs = TicksSince(nowUs, thenUs);
    return elapsedUs == 0 ? 0 : static_cast<uint32_t>(bytes * BITS_TIMES_US_PER_S / elapsedUs);
}
