#pragma once

#include <cstdint>

struct PacketBuffer;

// Statistics and window of one engine, eight words in the order of the status record.
struct ArqSendStats {
    uint32_t retransmitted; // packets sent again
    uint32_t notInBuffer; // requested numbers whose slot was empty
    uint32_t longestRun; // most consecutive numbers asked for in one request
    uint32_t overBudget; // requested numbers given up because the byte budget was spent
    uint32_t expired; // requested packets found too old
    uint32_t arqExtraMs;
    uint32_t arqRetries;
    uint32_t arqIntervalMs;
};
static_assert(sizeof(ArqSendStats) == 32);

// The ARQ engine of one output stream.
//
// Threads: the sending threads call StoreSent and BuildAndStore while the listen thread calls
// ProcessBuffer; the engine takes no lock. ClearStats, GetStats: any thread, figures may be torn apart.
class ArqSend {
public:
    ArqSend() = default;
    ArqSend(const ArqSend&) = delete;
    ArqSend& operator=(const ArqSend&) = delete;
    virtual ~ArqSend() = default;

    // Remembers a packet that is being sent, by the sequence number of its RTP header. The engine keeps
    // the pointer only: record, header and payload must stay as they are until the slot is overwritten.
    // A packet may be shorter than the header; its memory may not.
    virtual void StoreSent(PacketBuffer* packet) = 0;

    // Puts an RTP header before `length` bytes of payload, remembers the pair and returns the record to
    // send, which the engine owns. The payload must live as StoreSent's packets do. Null when the engine
    // was built without header building.
    virtual PacketBuffer* BuildAndStore(uint8_t* payload, int32_t length, uint16_t seq) = 0;

    // Handles what the receiver sent to the request port, without its stream tag. Returns 1 when it was
    // handled or ignored, 0 when it was rejected.
    virtual uint32_t ProcessBuffer(PacketBuffer* packet) = 0;

    virtual void GetStats(ArqSendStats* out) = 0;

    // Zeroes the five counters; the next expected request stays.
    virtual void ClearStats() = 0;

    // Forgets all stored packets and the next expected request.
    virtual void ClearRing() = 0;

    virtual void SetDebug(uint8_t flag) = 0;

    // What ProcessBuffer has cost so far, modulo 2^32; see SEND_WORK. Asked by the listen thread.
    virtual uint32_t Work() const { return 0; }

    // ENGINE_MAGIC in a live engine; see DestroyEngine.
    virtual uint32_t Magic() const = 0;
};

constexpr uint32_t ENGINE_MAGIC = 0x1928AB5C;

// Destroys an engine that belongs to no stream. Does nothing for null or a wrong validity word.
void DestroyEngine(ArqSend* engine);
