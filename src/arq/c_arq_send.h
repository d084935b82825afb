#pragma once

#include <cstdint>
#include <memory>

#include "arq/arq_budget.h"
#include "arq/arq_ring.h"
#include "arq/arq_send.h"
#include "arq/built_packet.h"
#include "base/plain_word.h"
#include "input/packet_buffer.h"

class CArqSendCB;
class NetSyncVid;
class RequestList;
class ResendTrain;

// The ARQ send engine: remembers the last N packets of one output stream and sends again what the
// receiver asks for, within a time window and a byte budget that its requests set. It never copies,
// owns or frees a packet and never sends by itself: everything goes through the stream's callback, what one
// request asks for together where that is possible without waiting.
//
// Threads: as ArqSend. No lock anywhere: a slot may be overwritten while a request reads it. The comparison
// of sequence numbers catches a slot that was reused. A packet that the engine built is rebuilt in place:
// requests send a copy of its header, and the mark of the built packet catches a rebuild in between.
class CArqSend : public ArqSend {
public:
    // Neither clock nor callback is owned; both may be null in an engine that handles no packet. With a
    // callback, the engine puts itself into the callback's record and belongs to it. `ringSize` is a power
    // of two; `bitRate`, in bit/s, bounds what one request sends again; `headerBuilding` makes room for
    // BuildAndStore. Clears ok when memory is short; then only destruction is allowed.
    CArqSend(bool& ok, NetSyncVid* clock, CArqSendCB* callback, uint32_t retries, uint32_t intervalMs,
        uint32_t ringSize, uint32_t bitRate, bool headerBuilding);

    void StoreSent(PacketBuffer* packet) override;
    PacketBuffer* BuildAndStore(uint8_t* payload, int32_t length, uint16_t seq) override;
    uint32_t ProcessBuffer(PacketBuffer* packet) override;
    void GetStats(ArqSendStats* out) override;
    void ClearStats() override;
    void ClearRing() override;
    void SetDebug(uint8_t flag) override { m_nDebug = flag; }
    uint32_t Work() const override { return m_nWork; }
    uint32_t Magic() const override { return m_nMagic; }

    // The window values now in force, and the delay in milliseconds that they add up to.
    void GetWindow(uint32_t* retries, uint32_t* intervalMs, uint32_t* delayMs) const;

    uint32_t MaxAgeTicks() const { return m_nMaxAgeTicks; }
    uint32_t HoldOffTicks() const { return m_nHoldOffTicks; }
    uint32_t NextExpectedRequest() const { return m_nNextExpected; }
    uint32_t Ssrc() const { return m_nSsrc; }

private:
    // What becomes of the rest of a request after one number.
    enum class Verdict { GoOn, OverBudget };

    // How far the list of a request is answered.
    struct ListPlace {
        uint32_t next = 0; // index of the first number that is not
        uint32_t run = 0; // consecutive numbers up to there
        ByteBudget budget;
    };

    uint32_t EchoPing(PacketBuffer* packet);
    uint32_t RejectPing();
    void TakeOverWindow(const RequestList& request);
    void AnswerList(const RequestList& request);
    void CountNumber(uint16_t seq, ListPlace& place);
    // Answers numbers from the place on, as many as can be answered by what leaves in one go.
    // Returns the end of the stretch that it looked at: what of that is left is answered one by
    // one, then there is a next stretch.
    uint32_t AnswerTogether(const RequestList& request, ListPlace& place);
    uint32_t LookAhead(const RequestList& request, const ListPlace& place, ResendTrain& train);
    bool LookAtNumber(uint16_t seq, uint32_t nowTicks, ByteBudget& budget, ResendTrain& train);
    void CountAsAnswered(
        const RequestList& request, ListPlace& place, const ResendTrain& train, uint32_t left);
    Verdict AnswerNumber(uint16_t seq, ByteBudget& budget);
    bool IsHeldOff(uint16_t seq, const ArqSlot& slot, uint32_t nowTicks) const;
    bool IsExpired(const ArqSlot& slot, uint32_t nowTicks) const;
    BuiltPacket* BuiltAt(uint16_t seq, const PacketBuffer* packet) const;
    void Expire(ArqSlot& slot, PacketBuffer* packet, const RebuildWatch& watch);
    Verdict Resend(uint16_t seq, ArqSlot& slot, PacketBuffer* packet, ByteBudget& budget);
    static void MarkAsResent(const PacketBuffer& packet);
    void CountResend(uint16_t seq, ArqSlot& slot, uint32_t notBeforeTicks);
    ArqWindow Window() const { return { m_nRetries, m_nIntervalMs, m_nExtraMs }; }

    CArqSendCB* m_pCallback;
    ArqRing m_ring;
    std::unique_ptr<BuiltPacket[]> m_builtPackets; // one a slot; only with header building
    // The window: the listen thread writes, others read for statistics.
    PlainWord<uint32_t> m_nRetries;
    PlainWord<uint32_t> m_nIntervalMs;
    PlainWord<uint32_t> m_nExtraMs { 0 };
    const uint32_t m_nHoldOffTicks; // stays at what construction gave, whatever window receivers send
    PlainWord<uint32_t> m_nMaxAgeTicks; // follows the window
    const uint32_t m_nBitRate; // bit/s
    const uint32_t m_nSsrc; // seconds since the epoch at construction
    const bool m_bHeaderBuilding;
    NetSyncVid* m_pClock;
    // Counters: the listen thread adds, the control thread reads and clears.
    PlainWord<uint32_t> m_nRetransmitted { 0 };
    PlainWord<uint32_t> m_nNotInBuffer { 0 };
    PlainWord<uint32_t> m_nLongestRun { 0 };
    PlainWord<uint32_t> m_nNextExpected { 0 }; // last requested number + 1; across requests
    PlainWord<uint32_t> m_nOverBudget { 0 };
    PlainWord<uint32_t> m_nExpired { 0 };
    uint32_t m_nWork = 0; // the listen thread's own; never cleared
    PlainWord<uint8_t> m_nDebug { 0 };
    const uint32_t m_nMagic = ENGINE_MAGIC;
};
