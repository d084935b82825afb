#pragma once

#include <atomic>
#include <cstdint>

#include "base/plain_word.h"
#include "control/impairment.h"
#include "replicator/batch_progress.h"
#include "replicator/stream_table.h"
#include "replicator/traffic_stats.h"

class NetSyncVid;
struct PacketBuffer;

// The packet path: one input packet is stamped or numbered, counted, perhaps withheld, sent to every output
// stream and remembered in every stream's ARQ engine.
//
// Threads: main or the pacer's timer calls SendPacket (both, with pacing). No lock and no allocation: one
// view of the table keeps the streams alive while others join and leave.
class FanOut {
public:
    // What the packet path works on; all of it outlives the fan-out.
    struct Parts {
        const StreamTable& table;
        NetSyncVid& clock;
        ReceiveStats& rx;
        Impairment& impair;
        PlainWord<int32_t>& nDropPacket; // packets withheld
        const PlainWord<bool>& bRunning; // without it packets are dropped uncounted
        bool udpInputMode; // the input has no RTP headers: the engines build them
    };

    explicit FanOut(const Parts& parts) : m_parts(parts) {}

    // Gives first sendings to this stream alone; the table's streams only remember them. Before any packet.
    void UseMulticast(MyArqSendCB* stream) { m_pMulticastStream = stream; }

    // Sends one input packet to every stream and stores it in every engine. The packet stays with the
    // engines until as many newer ones have come as they keep. Always returns 1.
    int SendPacket(PacketBuffer* packet) { return SendPackets(&packet, 1); }

    // The same for `count` packets, MOST_TOGETHER at most, which waited already: each receiver gets them in
    // this order, as trains where the way to it takes them.
    int SendPackets(PacketBuffer* const* packets, int32_t count);

    // The same for a raw payload, which gets its RTP header here. Always returns 1.
    int SendRaw(uint8_t* data, int32_t length);

    // For who serves requests: returns once the packets that are being sent together at this moment are
    // remembered, or, should that take long, a little later. At once when a single packet is being sent.
    void WaitForBatch() const { m_progress.WaitForBegun(); }

    // The number that was given last in UDP input mode.
    uint16_t SeqNum() const { return m_usSeqNum.load(std::memory_order_relaxed); }

private:
    void SendTogether(PacketBuffer* const* packets, int32_t count);
    void SendRawTogether(PacketBuffer* const* packets, int32_t count);
    void CountInput(const PacketBuffer& packet);
    uint16_t NextSeq();
    void StampAndCount(const PacketBuffer& packet);
    bool DecideDrop();

    const Parts m_parts;
    BatchProgress m_progress;
    MyArqSendCB* m_pMulticastStream = nullptr;
    // Not a PlainWord: with pacing two threads draw numbers, and no number may be given twice.
    std::atomic<uint16_t> m_usSeqNum { 0 };
};
