#include "main/proxy.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>

#include "base/most_together.h"
#include "base/rtp.h"
#include "control/control_thread.h"
#include "input/udp_input.h"
#include "main/proxy_context.h"
#include "pacing/ms_clock.h"
#include "replicator/default_settings.h"

namespace {

constexpr int32_t QUEUE_CAPACITY = 512; // packets
constexpr int32_t PACER_PERIOD_MS = 10;
constexpr uint32_t DRAIN_MS = 10;

} // namespace

Proxy::Proxy(ProxyContext& context, int argc, char** argv) : m_context(context), m_nArgs(argc), m_pArgs(argv)
{
}

Proxy::~Proxy() = default;

int Proxy::Run()
{
    const ParseResult result = StartUp();
    if (!result.goOn)
        return result.exitStatus;
    Deliver();
    ShutDown();
    return EXIT_SUCCESS;
}

// Option errors come before the lock is taken, wrong argument counts after it: a held lock wins over
// missing arguments.
ParseResult Proxy::StartUp()
{
    const ParseResult options = ParseOptions(m_nArgs, m_pArgs, m_context, m_settings);
    if (!options.goOn)
        return options;
    if (!m_lock.emplace().Take(m_context.instance)) {
        fprintf(stderr, "Process already running!\n");
        return { false, EXIT_FAILURE };
    }
    const ParseResult positionals = ParsePositionals(m_nArgs, m_pArgs, m_context);
    if (!positionals.goOn)
        return positionals;
    PrintSettings();
    if (!CreateReplicator()) {
        fprintf(stderr, "%s: Cannot create arq_send\n", m_pArgs[0]);
        return { false, EXIT_FAILURE };
    }
    LoadLibrary();
    bool isQueueUsable = true;
    m_context.queue = &m_queue.emplace(isQueueUsable, QUEUE_CAPACITY, nullptr, nullptr);
    if (!isQueueUsable)
        fprintf(stderr, "Error: Packet queue not created\n"); // nothing will be sent on; say why
    StartThreads();
    return { true, EXIT_SUCCESS };
}

void Proxy::PrintSettings() const
{
    if (m_context.grossMediaBitrate != DEFAULT_GROSS_MEDIA_BITRATE)
        printf("GrossMediaBitrate is %d\n", m_context.grossMediaBitrate);
    if (m_context.unicastUdpPort != 0)
        printf("UnicastUdpPort is %d\n", m_context.unicastUdpPort);
}

bool Proxy::CreateReplicator()
{
    m_context.instanceCopy = m_context.instance;
    const ArqSendReplicator::Settings settings {
        .arqRequestPort = m_context.arqRequestPort,
        .destPort = m_context.destPort,
        .destAddress = m_context.destAddress,
        .udpInputMode = m_context.udpInputMode == 1,
        .nStreams = m_settings.nStreams,
        .stream1Percent = m_settings.stream1Percent,
        .grossMediaBitrate = m_context.grossMediaBitrate,
        .unicastUdpPort = m_context.unicastUdpPort,
        .instance = m_context.instance,
    };
    bool ok = false;
    m_pReplicator.reset(new (std::nothrow) ArqSendReplicator(ok, settings));
    if (!m_pReplicator || !ok)
        return false;
    m_context.replicator = m_pReplicator.get();
    return true;
}

// Given both with and without a password, the library is loaded twice and the second session counts.
void Proxy::LoadLibrary()
{
    if (m_settings.loadLibrary)
        m_context.plugin.Load(nullptr, 0);
    if (m_settings.password != nullptr)
        m_context.plugin.Load(m_settings.password, static_cast<int32_t>(std::strlen(m_settings.password)));
}

void Proxy::StartThreads()
{
    m_context.running = 1;
    m_context.control.instance = m_context.instance;
    m_context.control.replicator = m_context.replicator;
    if (m_context.udpInputMode != 0)
        m_context.startTime = static_cast<int32_t>(time(nullptr));
    if (!m_crew.Start(ReceiveInput, &m_context))
        perror("cannot start the input thread");
    if (!m_crew.Start(ServeControl, &m_context))
        perror("cannot start the control thread");
    m_context.startTimeUs = GetTimeUs();
}

void Proxy::ReceiveInput(void* context)
{
    auto& run = *static_cast<ProxyContext*>(context);
    RunUdpInput({
        .running = run.running,
        .listenPort = run.listenPort,
        .multicastGroup = run.multicastGroup,
        .pool = run.replicator->PacketPool(),
        .queue = *run.queue,
        .transform = run.plugin.Transform(),
        .inputBytes = run.inputBytes,
        .sourceAddress = run.sourceAddress,
    });
}

void Proxy::ServeControl(void* context)
{
    (void)process_request_thread(static_cast<ProxyContext*>(context)->control);
}

void Proxy::CreatePacer()
{
    bool ok = true;
    m_pPacerCB.reset(new (std::nothrow) PacerCB(m_pReplicator.get()));
    if (m_pPacerCB)
        m_pPacerCB->m_pPacer.reset(new (std::nothrow) CPacer(ok, m_pPacerCB.get(), PACER_PERIOD_MS));
    if (!ok || !m_pPacerCB || !m_pPacerCB->m_pPacer) {
        m_pPacerCB.reset();
        fprintf(stderr, "Error: Pacer not created\n"); // the run goes on unpaced
        return;
    }
    CPacer& pacer = *m_pPacerCB->m_pPacer;
    fprintf(stderr, "Pacing bit rate %d\n", m_settings.pacingBitrate);
    pacer.SetPacingRate(static_cast<uint32_t>(m_settings.pacingBitrate));
    // Headers of RTP input are not charged against the rate.
    pacer.SetHeaderBytes(m_context.udpInputMode != 0 ? 0 : RTP_HEADER_BYTES);
    (void)pacer.Start();
}

void Proxy::Deliver()
{
    if (m_settings.pacingBitrate >= 1)
        CreatePacer();
    PacketBuffer* packets[MOST_TOGETHER];
    while (m_context.running) {
        const int32_t count = m_queue->popBatch(packets, MOST_TOGETHER);
        if (count != 0)
            DeliverPackets(packets, count);
    }
}

void Proxy::DeliverPackets(PacketBuffer* const* packets, int32_t count)
{
    if (!m_pPacerCB) {
        (void)m_pReplicator->SendPackets(packets, count);
        return;
    }
    for (int32_t i = 0; i < count; ++i)
        (void)m_pPacerCB->m_pPacer->Submit(packets[i]);
}

// Both threads see the cleared run flag soon, but the input thread may stand in a push: the queue is
// emptied until they are gone.
void Proxy::WaitForThreads()
{
    while (!m_crew.IsGone())
        (void)m_queue->pop(nullptr, DRAIN_MS);
}

// Nothing that runs may still use what is destroyed here: the threads leave first, the pacer's ticks end.
// The pacer goes before its callback object, so that a clean end makes no overflow report.
void Proxy::ShutDown()
{
    WaitForThreads();
    if (m_pPacerCB)
        m_pPacerCB->m_pPacer.reset();
    m_lock.reset();
    m_queue.reset();
    m_pReplicator.reset();
    m_context.plugin.CloseSession();
    m_context.plugin.Unload();
}
