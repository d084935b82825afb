// The replicator's own threads: listening, keep-alive, statistics.
#include <cstdio>

#include "pacing/ms_clock.h"
#include "replicator/arq_send_replicator.h"
#include "replicator/log_timestamp.h"

namespace {

constexpr int REQUEST_POSITION = 0; // in the socket group
constexpr int PING_POSITION = 1;
constexpr uint32_t STOP_GRACE_MS = 200;
constexpr uint32_t VISIT_MS
    = 100; // one table position; 50 of them make the 5 s in which a receiver must ping
constexpr uint32_t SAMPLE_MS = 1000;
// So that the status thread notices the end within the grace; also how often it looks after removed streams.
constexpr uint32_t SAMPLE_SLICE_MS = 100;

// The low 32 bits are all that the rates need.
uint32_t TimeUs()
{
    return static_cast<uint32_t>(GetTimeUs());
}

} // namespace

bool ArqSendReplicator::Start()
{
    if (m_pSocketGroup) {
        m_pSocketGroup->SetListener(m_pRequestListener.get(), REQUEST_POSITION);
        m_pSocketGroup->SetListener(m_pPingListener.get(), PING_POSITION);
    }
    if (!m_pSocketGroup || !m_pSocketGroup->Start()) {
        (void)fprintf(stderr, "ArqSendReplicator::Start: SocketGroup::Start() failed");
        Stop();
        return false;
    }
    m_bRunning = 1;
    if (!SharesPorts()) { // shared ports are for configured streams
        (void)fprintf(stderr, "ArqSendReplicator::Start: Create KeepAlive Thread\n");
        (void)m_crew.Start(KeepAlive, this);
    }
    (void)fprintf(stderr, "ArqSendReplicator::Start: Create Status Thread\n");
    (void)m_crew.Start(Status, this);
    (void)fprintf(stderr, "ArqSendReplicator::Start: started listener thread\n");
    return true;
}

void ArqSendReplicator::Stop()
{
    if (m_pSocketGroup) {
        (void)m_pSocketGroup->Stop();
        m_pSocketGroup->SetListener(nullptr, REQUEST_POSITION);
        m_pSocketGroup->SetListener(nullptr, PING_POSITION);
    }
    if (m_bRunning) {
        m_bRunning = 0;
        (void)SleepMs(STOP_GRACE_MS);
    }
    m_crew.WaitUntilGone();
}

void ArqSendReplicator::KeepAlive(void* replicator)
{
    auto* self = static_cast<ArqSendReplicator*>(replicator);
    while (self->m_bRunning) {
        for (int32_t position = 0; position < StreamTable::MAX_STREAMS && self->m_bRunning; ++position) {
            self->VisitPosition(position);
            (void)SleepMs(VISIT_MS);
        }
    }
}

void ArqSendReplicator::VisitPosition(int32_t position)
{
    const StreamTable::Lock lock(m_table);
    const StreamEntries entries = m_table.Current();
    if (position >= entries.Count())
        return;
    MyArqSendCB* stream = &entries.At(position);
    if (stream->m_bStatic)
        return;
    if (stream->m_nPingCount != 0) {
        stream->m_nPingCount = 0;
        if (!stream->m_bIsAlive) {
            const StampedLine line;
            (void)fprintf(
                stderr, "Stream resumed for %s ID:0x%08x\n", stream->HostText(), stream->StreamId());
            stream->m_bIsAlive = 1;
        }
    } else if (stream->m_bIsAlive) {
        {
            const StampedLine line;
            (void)fprintf(stderr, "Stream suspended for %s\n", stream->HostText());
        }
        DiscardStream(*stream);
    }
}

// Also destroys what was removed: this thread holds no lock, and nobody waits for it.
void ArqSendReplicator::Status(void* replicator)
{
    auto* self = static_cast<ArqSendReplicator*>(replicator);
    uint32_t thenUs = TimeUs();
    self->m_tx.m_nTxBytes = 0;
    self->m_rx.m_nRxBytes = 0;
    while (self->m_bRunning) {
        for (uint32_t slept = 0; slept < SAMPLE_MS && self->m_bRunning; slept += SAMPLE_SLICE_MS) {
            (void)SleepMs(SAMPLE_SLICE_MS);
            self->m_table.DestroyRemoved();
        }
        const uint32_t nowUs = TimeUs();
        self->SampleBitrates(nowUs, thenUs);
        thenUs = nowUs;
    }
}

void ArqSendReplicator::SampleBitrates(uint32_t nowUs, uint32_t thenUs)
{
    m_tx.m_nTxBitrate = BitRate(m_tx.m_nTxBytes, nowUs, thenUs);
    m_rx.m_nRxBitrate = BitRate(m_rx.m_nRxBytes, nowUs, thenUs);
    m_tx.m_nTxBytes = 0;
    m_rx.m_nRxBytes = 0;
}

int32_t ArqSendReplicator::CountStreams() const
{
    const StreamTable::View view(m_table);
    return view.Count();
}

void ArqSendReplicator::DebugDump() const
{
    (void)fprintf(stderr, "\n");
    (void)fprintf(stderr, "m_bRunning %d\n", m_bRunning.Load());
    (void)fprintf(stderr, "m_usSeqNum %d\n", m_usSeqNum.load());
    (void)fprintf(stderr, "m_nNumStreams %d\n", CountStreams());
    (void)fprintf(stderr, "m_impair.m_mode %d\n", m_impair.m_mode.Load());
    (void)fprintf(stderr, "m_impair.m_dist.m_value %d\n", m_impair.m_dist.m_value.Load());
    (void)fprintf(stderr, "m_impair.m_burst.m_value %d\n", m_impair.m_burst.m_value.Load());
    (void)fprintf(stderr, "m_nDropPacket %d\n", m_nDropPacket.Load());
}
