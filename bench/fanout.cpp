// The pieces of the packet path and of the request path, one by one. What a whole packet costs is shown by
// comparison; these figures tell which piece it is.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "arq/c_arq_send.h"
#include "arq/c_arq_send_cb.h"
#include "arq/c_net_sync_vid.h"
#include "arq/media_clock.h"
#include "base/unique_fd.h"
#include "control/impairment.h"
#include "input/packet_buffer.h"
#include "input/packet_queue.h"
#include "replicator/arq_send_replicator.h"
#include "replicator/default_settings.h"
#include "replicator/stream_table.h"
#include "support/child.h"
#include "support/media.h"
#include "support/outlet.h"
#include "support/request_datagram.h"
#include "support/udp.h"

namespace {

constexpr uint32_t RING_SIZE = 4096;
constexpr uint32_t CLOCK_WINDOW = 32;
constexpr uint32_t POOL_SIZE = RING_SIZE + 1024;

// Takes every packet and sends none.
class NullSend : public CArqSendCB {
public:
    int SendData(PacketBuffer* packet) override
    {
        benchmark::DoNotOptimize(packet);
        ++m_nSent;
        return 1;
    }

    uint64_t m_nSent = 0;
};

// An engine with its clock and a callback that sends nothing.
struct Engine {
    explicit Engine(bool headerBuilding) : clock(status, CLOCK_WINDOW)
    {
        bool ok = true;
        // Owned by the callback.
        engine = new CArqSend(
            ok, &clock, &callback, 2, 200, RING_SIZE, DEFAULT_GROSS_MEDIA_BITRATE, headerBuilding);
        if (!ok)
            GiveUp("memory is short");
    }
    Engine(const Engine&) = delete; // the clock holds a reference to the status
    Engine& operator=(const Engine&) = delete;

    int32_t status = 0;
    CNetSyncVid clock;
    NullSend callback;
    CArqSend* engine;
};

void FillPacket(PacketBuffer& packet, uint16_t seq, uint32_t timestamp)
{
    auto* header = reinterpret_cast<MediaHeader*>(packet.Data());
    header->flags.Set(RTP_VERSION_FLAGS);
    header->payloadType.Set(MEDIA_PAYLOAD_TYPE);
    header->seq.Set(seq);
    header->timestamp.Set(timestamp);
    packet.SetLength(sizeof(MediaDatagram));
}

void FillRequest(PacketBuffer& packet, uint16_t first, uint16_t count)
{
    const std::vector<uint8_t> bytes = RequestDatagram(first, count);
    std::memcpy(packet.Data(), bytes.data(), bytes.size());
    packet.SetLength(static_cast<int32_t>(bytes.size()));
}

// Sends what is written to standard output and standard error to nowhere while it lives.
class Silence {
public:
    Silence() : m_out(dup(STDOUT_FILENO)), m_err(dup(STDERR_FILENO))
    {
        const UniqueFd nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));
        (void)fflush(stdout);
        (void)dup2(nowhere.Get(), STDOUT_FILENO);
        (void)dup2(nowhere.Get(), STDERR_FILENO);
    }
    Silence(const Silence&) = delete;
    Silence& operator=(const Silence&) = delete;
    ~Silence()
    {
        (void)fflush(stdout);
        (void)dup2(m_out.Get(), STDOUT_FILENO);
        (void)dup2(m_err.Get(), STDERR_FILENO);
    }

private:
    UniqueFd m_out;
    UniqueFd m_err;
};

int32_t CountOfStreams(const ArqSendReplicator& replicator)
{
    const StreamTable::View view(replicator.Streams());
    return view.Count();
}

// The whole fan-out, with real sockets to receivers whose sockets drop and count what reaches them: none is
// ever full. A benchmark to which not everything was delivered has no result.
void SendPacketToReceivers(benchmark::State& state)
{
    const Silence silence;
    const std::unique_ptr<Outlet> outlet = MakeLoopbackOutlet();
    const uint16_t port = FreePort();
    outlet->Open(static_cast<int32_t>(state.range(0)), port);
    const std::string destinations = AddressList(*outlet, static_cast<int32_t>(state.range(0)));
    ArqSendReplicator::Settings settings;
    settings.destPort = port;
    settings.arqRequestPort = FreePort();
    settings.destAddress = destinations.c_str();
    settings.udpInputMode = state.range(1) != 0;
    bool ok = false;
    ArqSendReplicator replicator(ok, settings);
    if (!ok || CountOfStreams(replicator) != state.range(0)) {
        state.SkipWithError("no replicator");
        return;
    }
    uint16_t seq = 0;
    for (auto unused : state) {
        (void)unused;
        PacketBuffer* packet = replicator.PacketPool().get();
        FillPacket(*packet, seq++, 0);
        (void)replicator.SendPacket(packet);
    }
    if (outlet->Delivered(sizeof(MediaDatagram)) != state.iterations() * state.range(0))
        state.SkipWithError("not everything was delivered");
    state.counters["per_datagram"]
        = benchmark::Counter(static_cast<double>(state.iterations() * state.range(0)),
            benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(SendPacketToReceivers)
    ->ArgNames({ "receivers", "build_header" })
    ->ArgsProduct({ { 1, 10, 50 }, { 0, 1 } });

// The same calls without anything of ours around them.
void BareSendto(benchmark::State& state)
{
    const std::unique_ptr<Outlet> outlet = MakeLoopbackOutlet();
    const uint16_t port = FreePort();
    outlet->Open(static_cast<int32_t>(state.range(0)), port);
    const UniqueFd sender(socket(AF_INET, SOCK_DGRAM, 0));
    std::vector<sockaddr_in> destinations;
    for (int32_t i = 0; i < state.range(0); ++i)
        destinations.push_back(ReceiverAddress(i, port));
    const auto pool = PacketBufferPool::createDefault(POOL_SIZE);
    uint16_t seq = 0;
    for (auto unused : state) {
        (void)unused;
        PacketBuffer* packet = pool->get();
        FillPacket(*packet, seq++, 0);
        for (const sockaddr_in& destination : destinations) {
            (void)sendto(sender.Get(), packet->Data(), sizeof(MediaDatagram), 0,
                reinterpret_cast<const sockaddr*>(&destination), sizeof(destination));
        }
    }
    state.counters["per_datagram"]
        = benchmark::Counter(static_cast<double>(state.iterations() * state.range(0)),
            benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BareSendto)->ArgName("receivers")->Arg(1)->Arg(10)->Arg(50);

// One packet into the rings of `streams` engines: what the fan-out does after its sends.
void StoreSent(benchmark::State& state)
{
    std::vector<std::unique_ptr<Engine>> engines;
    for (int64_t i = 0; i < state.range(0); ++i)
        engines.push_back(std::make_unique<Engine>(false));
    const auto pool = PacketBufferPool::createDefault(POOL_SIZE);
    uint16_t seq = 0;
    for (auto unused : state) {
        (void)unused;
        PacketBuffer* packet = pool->get();
        FillPacket(*packet, seq++, 0);
        for (const auto& engine : engines)
            engine->engine->StoreSent(packet);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(StoreSent)->ArgName("streams")->Arg(1)->Arg(10)->Arg(50);

void BuildAndStore(benchmark::State& state)
{
    const Engine engine(true);
    uint8_t payload[7 * 188] {};
    uint16_t seq = 0;
    for (auto unused : state) {
        (void)unused;
        benchmark::DoNotOptimize(engine.engine->BuildAndStore(payload, sizeof(payload), seq++));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BuildAndStore);

// Checksum, window, ring and hold-off for one request of `numbers` numbers, every one of which is resent
// into a callback that sends nothing. Each ring slot is asked for once, then the packets are stored afresh.
void AnswerRequest(benchmark::State& state)
{
    const auto count = static_cast<uint16_t>(state.range(0));
    const Engine engine(false);
    const auto media = PacketBufferPool::createDefault(RING_SIZE);
    const auto requests = PacketBufferPool::createDefault(1);
    PacketBuffer* request = requests->get();
    uint32_t asked = RING_SIZE;
    uint64_t wanted = 0;
    for (auto unused : state) {
        (void)unused;
        state.PauseTiming();
        if (asked + count > RING_SIZE) {
            for (uint32_t i = 0; i < RING_SIZE; ++i) {
                PacketBuffer* packet = media->get();
                FillPacket(*packet, static_cast<uint16_t>(i), MediaClock());
                engine.engine->StoreSent(packet);
            }
            asked = 0;
        }
        FillRequest(*request, static_cast<uint16_t>(asked), count);
        asked += count;
        wanted += count;
        state.ResumeTiming();
        (void)engine.engine->ProcessBuffer(request);
    }
    if (engine.callback.m_nSent != wanted)
        state.SkipWithError("not every number was answered");
    state.SetItemsProcessed(static_cast<int64_t>(wanted));
}
BENCHMARK(AnswerRequest)->ArgName("numbers")->Arg(1)->Arg(10)->Arg(100);

// A request whose numbers are all held off: the price of asking again too soon.
void AnswerHeldOffRequest(benchmark::State& state)
{
    const auto count = static_cast<uint16_t>(state.range(0));
    const Engine engine(false);
    const auto media = PacketBufferPool::createDefault(RING_SIZE);
    const auto requests = PacketBufferPool::createDefault(1);
    for (uint32_t i = 0; i < RING_SIZE; ++i) {
        PacketBuffer* packet = media->get();
        FillPacket(*packet, static_cast<uint16_t>(i), MediaClock());
        engine.engine->StoreSent(packet);
    }
    PacketBuffer* request = requests->get();
    FillRequest(*request, 0, count);
    for (auto unused : state) {
        (void)unused;
        benchmark::DoNotOptimize(engine.engine->ProcessBuffer(request));
    }
    state.SetItemsProcessed(state.iterations() * count);
}
BENCHMARK(AnswerHeldOffRequest)->ArgName("numbers")->Arg(1)->Arg(100);

void RingLookup(benchmark::State& state)
{
    bool ok = true;
    ArqRing ring(ok, RING_SIZE);
    const auto media = PacketBufferPool::createDefault(RING_SIZE);
    for (uint32_t i = 0; i < RING_SIZE; ++i)
        ring.Store(static_cast<uint16_t>(i), media->get(), 0);
    uint16_t seq = 0;
    for (auto unused : state) {
        (void)unused;
        seq = static_cast<uint16_t>(seq + 1021); // as requests come: not one after the other
        benchmark::DoNotOptimize(ring.Slot(seq).packet.Load());
    }
}
BENCHMARK(RingLookup);

// Push and pop on one thread: the queue without anybody who has to be woken.
void QueuePushPop(benchmark::State& state)
{
    bool ok = true;
    PacketQueue queue(ok, 512, nullptr, nullptr);
    PacketBuffer packet {};
    for (auto unused : state) {
        (void)unused;
        (void)queue.push(&packet, PacketQueue::NO_LIMIT);
        benchmark::DoNotOptimize(queue.popWait());
    }
}
BENCHMARK(QueuePushPop);

// A packet to a thread that sleeps in popWait and back from it: two hand-overs.
void QueueRoundTrip(benchmark::State& state)
{
    bool ok = true;
    PacketQueue there(ok, 512, nullptr, nullptr);
    PacketQueue back(ok, 512, nullptr, nullptr);
    PacketBuffer packet {};
    PacketBuffer last {};
    std::thread echo([&] {
        for (PacketBuffer* got = nullptr; got != &last;) {
            got = there.popWait();
            if (got != nullptr)
                (void)back.push(got, PacketQueue::NO_LIMIT);
        }
    });
    for (auto unused : state) {
        (void)unused;
        (void)there.push(&packet, PacketQueue::NO_LIMIT);
        while (back.popWait() == nullptr) {} // a spurious wake-up
    }
    (void)there.push(&last, PacketQueue::NO_LIMIT);
    echo.join();
}
BENCHMARK(QueueRoundTrip)->UseRealTime()->MeasureProcessCPUTime();

// Modes 0 (off), 1 (fixed gaps) and 2 (random gaps).
void ImpairmentGate(benchmark::State& state)
{
    Impairment impair;
    InitImpairment(impair);
    ImpairmentSettings settings;
    settings.mode = static_cast<int32_t>(state.range(0));
    ConfigureImpairment(impair, settings);
    for (auto unused : state) {
        (void)unused;
        benchmark::DoNotOptimize(StepImpairment(impair));
    }
}
BENCHMARK(ImpairmentGate)->ArgName("mode")->DenseRange(0, 2);

// With a second thread in and out all the time when that is 1.
void EnterAndLeaveReadSection(benchmark::State& state)
{
    const StreamTable table;
    std::atomic<bool> goOn { state.range(0) != 0 };
    std::thread other([&] {
        while (goOn.load(std::memory_order_relaxed))
            const StreamTable::View view(table);
    });
    for (auto unused : state) {
        (void)unused;
        const StreamTable::View view(table);
        benchmark::ClobberMemory();
    }
    goOn = false;
    other.join();
}
BENCHMARK(EnterAndLeaveReadSection)->ArgName("other_reader")->Arg(0)->Arg(1);

} // namespace

int main(int argc, char** argv)
{
    return RunBenchmark([=]() mutable {
        benchmark::Initialize(&argc, argv);
        if (benchmark::ReportUnrecognizedArguments(argc, argv))
            GiveUp("see --help");
        (void)benchmark::RunSpecifiedBenchmarks();
        benchmark::Shutdown();
    });
}
