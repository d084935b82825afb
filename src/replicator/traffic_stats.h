#pragma once

#include <cstdint>

#include "base/plain_word.h"

// What came in. Threads: the sending threads count, the status thread samples and zeroes the bytes, the
// control thread reads and resets. An update lost between two of them is accepted.
struct ReceiveStats {
    PlainWord<int32_t> m_nRxLoss; // packets missing from the RTP sequence
    PlainWord<uint32_t> m_nRxBytes; // payload bytes since the last sample
    PlainWord<uint32_t> m_nRxBitrate; // bit/s, at the last sample
    PlainWord<uint64_t> m_nRxPackets; // packets accepted while running
    PlainWord<bool> m_bFirstRxPacket; // the next RTP packet sets the base
    PlainWord<uint16_t> m_usExpectedSeq; // next RTP sequence number

    // Zeroes loss and packets and lets the next packet set the base: no gap is counted across a reset.
    void Reset();

    // Follows the input's RTP sequence. A gap adds to the loss; a repeated or late packet is no loss, but
    // what comes after it is expected next.
    void CountSequence(uint16_t seq);
};

// What went out. Threads: the sending threads and the listen thread add, the status thread samples and
// zeroes the bytes, the control thread reads and resets.
struct TransmitStats {
    PlainWord<uint32_t> m_nTxBytes; // bytes taken by the sockets since the last sample
    PlainWord<uint32_t> m_nTxBitrate; // bit/s, at the last sample
    PlainWord<uint64_t> m_nTxPackets; // datagrams of all streams, sent or failed

    void Reset();
};

// Bits per second of `bytes` in the time between two readings of the low 32 bits of a microsecond clock;
// 0 when both readings are the same.
uint32_t BitRate(uint32_t bytes, uint32_t nowUs, uint32_t thenUs);
