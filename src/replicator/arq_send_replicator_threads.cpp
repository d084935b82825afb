// The replicator's own threads, loops and sleeps only: listening, keep-alive, statistics.
#include <cstdio>

#include "pacing/ms_clock.h"
#include "replicator/arq_send_replicator.h"

namespace {

constexpr int REQUEST_POSITION = 0; // in the socket group
constexpr int PING_POSITION = 1;
constexpr uint32_t STOP_GRACE_MS = 200;
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
        fprintf(stderr, "ArqSendReplicator::Start: SocketGroup::Start() failed");
        Stop();
        return false;
    }
    m_bRunning = true;
    if (!m_keeper->SharesPorts()) { // shared ports are for configured streams
        fprintf(stderr, "ArqSendReplicator::Start: Create KeepAlive Thread\n");
        if (!m_crew.Start(KeepAlive, this))
            perror("cannot start the keep-alive thread");
    }
    fprintf(stderr, "ArqSendReplicator::Start: Create Status Thread\n");
    if (!m_crew.Start(Status, this))
        perror("cannot start the status thread");
    fprintf(stderr, "ArqSendReplicator::Start: started listener thread\n");
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
        m_bRunning = false;
        (void)SleepMs(STOP_GRACE_MS);
    }
    m_crew.WaitUntilGone();
}

void ArqSendReplicator::KeepAlive(void* replicator)
{
    auto* self = static_cast<ArqSendReplicator*>(replicator);
    uint32_t dueMs = GetSteadyMs();
    for (int32_t place = 0; self->m_bRunning; place = (place + 1) % StreamLife::PLACES) {
        self->m_keeper->VisitPlace(place, self->m_pSocketGroup->HeardMs());
        (void)SleepMs(SleepBeforeVisit(&dueMs, GetSteadyMs()));
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
            self->m_keeper->DestroyRemoved();
        }
        const uint32_t nowUs = TimeUs();
        self->SampleBitrates(nowUs, thenUs);
        thenUs = nowUs;
    }
}
