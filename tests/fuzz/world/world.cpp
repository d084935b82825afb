#include "fuzz/world/world.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "arq/arq_settings.h"
#include "base/most_together.h"
#include "fuzz/world/require.h"
#include "input/packet_queue.h"
#include "input/udp_input.h"
#include "replicator/my_arq_send_cb.h"
#include "replicator/stream_keeper.h"

namespace {

constexpr uint32_t ROUND_MS = 5000; // of the keep-alive
constexpr uint32_t SETTLED_MS = 1000; // whatever was removed is destroyed
constexpr const char* CONFIGURED[] = { "192.0.2.1", "127.0.0.1" };
constexpr in_addr_t GROUP_NET = 0x030201EF; // 239.1.2.3

// Of older datagrams: nothing, a ping, a tag, numbers.
constexpr std::string_view LEFT_OVER[]
    = { "", { "\0\0\xAD\xE2\0\0\xAD\xE2", 8 }, { "\xBA\xBE\xFA\xCE\1\0\0\0", 8 }, { "\1\0\2\0\3\0\4\0", 8 } };

ArqSendReplicator::Settings SettingsFor(World::Setup setup)
{
    using Setup = World::Setup;
    ArqSendReplicator::Settings settings;
    settings.arqRequestPort = World::REQUEST_PORT;
    settings.destPort = setup == Setup::SharedPorts ? World::REQUEST_PORT : World::PING_PORT;
    settings.destAddress = "192.0.2.1,127.0.0.1";
    settings.grossMediaBitrate = SentChecker::BIT_RATE;
    settings.udpInputMode = setup == Setup::UdpInput || setup == Setup::MulticastUdpInput;
    if (setup == Setup::SharedPorts)
        settings.nStreams = 2;
    if (setup == Setup::Multicast || setup == Setup::MulticastUdpInput) {
        settings.destAddress = "239.1.2.3";
        settings.unicastUdpPort = World::UNICAST_PORT;
    }
    return settings;
}

// Names that begin with "h" are known; their next character is the address.
in_addr_t LookUp(const char* name)
{
    const size_t length = std::strlen(name);
    return length < 2 || name[0] != 'h' ? 0 : htonl(0xC6336400U | static_cast<uint8_t>(name[1]));
}

} // namespace

struct World::Input {
    static constexpr int32_t QUEUE_CAPACITY = 64;
    // More than the engines refer to, and than may come and wait besides.
    static constexpr uint32_t POOL_COUNT = SentChecker::RING + 3 * MOST_TOGETHER;

    Input() : pool(PacketBufferPool::createDefault(POOL_COUNT)), queue(ok, QUEUE_CAPACITY, nullptr, nullptr)
    {
        Require(ok && pool != nullptr, "there is memory");
    }

    // Stands for the encryption library: is shown pieces of a slice, and may change every byte of them.
    static int Transform(void* session, uint8_t* data, int32_t length)
    {
        const auto& self = *static_cast<const Input*>(session);
        const auto offset = static_cast<size_t>(data - self.pSlices);
        Require(length > 0 && data >= self.pSlices, "the library is shown a part of a slice");
        Require(offset % PacketBufferPool::SLICE_BYTES + static_cast<size_t>(length)
                <= PacketBufferPool::SLICE_BYTES,
            "the library is shown a part of one slice");
        Require(offset < size_t { POOL_COUNT } * PacketBufferPool::SLICE_BYTES, "of this pool");
        data[0] = static_cast<uint8_t>(data[0] ^ 0);
        return data[length - 1];
    }

    static void* Run(void* input)
    {
        auto& self = *static_cast<Input*>(input);
        RunUdpInput({
            .running = self.running,
            .listenPort = World::INPUT_PORT,
            .multicastGroup = self.isGroup ? GROUP_NET : 0,
            .pool = *self.pool,
            .queue = self.queue,
            .transform = { .session = input, .callback = Transform },
            .inputBytes = self.bytes,
            .sourceAddress = self.source,
        });
        return nullptr;
    }

    bool ok = true;
    bool isGroup = false;
    PlainWord<int32_t> running { 1 };
    std::unique_ptr<PacketBufferPool> pool;
    const uint8_t* pSlices = nullptr;
    PacketQueue queue;
    PlainWord<uint32_t> bytes { 0 };
    char source[INET_ADDRSTRLEN] = "";
};

World& World::Begin(uint8_t start)
{
    const uint8_t setup = start % SETUPS;
    static std::array<World*, SETUPS> worlds {};
    World*& world = worlds[setup];
    if (world == nullptr)
        world = new World(static_cast<Setup>(setup));
    world->m_kernel.SetLeftOver(LEFT_OVER[start / SETUPS % std::size(LEFT_OVER)]);
    world->m_entered = std::make_unique<Kernel::Entered>(world->m_kernel);
    return *world;
}

World::World(Setup setup) : m_setup(setup), m_sent(SettingsFor(setup).udpInputMode)
{
    const Kernel::Entered entered(m_kernel);
    m_kernel.onLookUp = LookUp;
    m_kernel.onRefuse = [this](const kernel_model::Attempt& attempt) { return m_refusals.Next(attempt); };
    m_kernel.onMessage = [this](const kernel_model::Attempt& attempt, kernel_model::Fate fate) {
        m_sent.OnMessage(attempt, fate);
    };
    g_nArqBufferCount = SentChecker::RING;
    bool ok = false;
    m_replicator = std::make_unique<ArqSendReplicator>(ok, SettingsFor(setup));
    Require(ok, "the replicator can be made");
    m_kernel.Advance(2 * ROUND_MS);
    Restore();
    m_nOpenAtRest = m_kernel.OpenCount();
}

World::~World() = default;

void World::End()
{
    m_refusals = {};
    m_kernel.sockets.RaiseErrors(0);
    CheckStreams();
    if (m_input)
        EndInput();
    Restore();
    Require(m_kernel.OpenCount() == m_nOpenAtRest, "no descriptor is left over");
    m_kernel.ClearReceived();
    m_entered.reset();
}

// All streams go, and those of the command line come again; then the keep-alive is at the first place.
void World::Restore()
{
    const auto late = static_cast<uint32_t>(m_kernel.fibers.NowMs() % ROUND_MS);
    RemoveAll();
    m_kernel.Advance(late <= ROUND_MS - SETTLED_MS ? ROUND_MS - late : 2 * ROUND_MS - late);
    if (m_setup != Setup::Multicast && m_setup != Setup::MulticastUdpInput) {
        for (const char* text : CONFIGURED)
            (void)m_replicator->AddStream(text, SettingsFor(m_setup).nStreams);
    }
    m_pings.clear();
    m_sent.Forget();
    m_replicator->ResetRxStats();
    m_replicator->ResetTxStats();
    m_kernel.ResetWallClock();
}

void World::RemoveAll()
{
    for (;;) {
        in_addr_t addressNet = 0;
        uint32_t streamId = 0;
        {
            const StreamTable::View view(m_replicator->Streams());
            if (view.Count() == 0)
                return;
            addressNet = view.At(view.Count() - 1).AddressNet();
            streamId = view.At(view.Count() - 1).StreamId();
        }
        PacketBuffer leave {};
        uint8_t bytes[8] = { 0xDE, 0xAD, 0xBE, 0xEF };
        leave.partCount = 1;
        leave.parts[0] = bytes;
        leave.SetLength(sizeof(bytes));
        (void)m_replicator->ProcessPing(&leave, addressNet, 0, streamId);
    }
}

void World::StartInput()
{
    m_input = std::make_unique<Input>();
    m_input->isGroup = m_setup == Setup::Multicast;
    PacketBuffer* first = m_input->pool->get(); // once round, to know where the slices begin
    m_input->pSlices = first->Data();
    for (uint32_t i = 1; i < Input::POOL_COUNT; ++i)
        (void)m_input->pool->get();
    for (uint32_t i = 0; i < Input::POOL_COUNT; ++i) {
        PacketBuffer* packet = m_input->pool->get();
        std::memset(packet->Data(), 0, PacketBufferPool::SLICE_BYTES);
        packet->SetLength(static_cast<int32_t>(i * 188 % (PacketBufferPool::SLICE_BYTES + 1)));
    }
    m_kernel.fibers.Start(Input::Run, m_input.get());
    m_kernel.Advance(0);
}

void World::EndInput()
{
    RemoveAll(); // the engines refer to the pool
    const size_t others = m_kernel.fibers.Count() - 1;
    m_kernel.ClearReceived(); // as long as the input has that memory
    m_input->running = 0;
    m_kernel.Advance(SETTLED_MS);
    Require(m_kernel.fibers.Count() == others, "the input ends when it is told to");
    m_input.reset();
}

void World::ReceiveMedia(const std::vector<std::string_view>& packets)
{
    if (!m_input)
        StartInput();
    const uint32_t before = m_input->bytes;
    uint32_t bytes = 0;
    for (const std::string_view packet : packets) {
        constexpr uint32_t LOWER_HEADERS = 42;
        const size_t received = std::min<size_t>(packet.size(), PacketBufferPool::SLICE_BYTES);
        Require(m_kernel.Put(INPUT_PORT, { htonl(0xC0000263U), 0x3412, { packet.begin(), packet.end() } }),
            "the input is open");
        bytes += received == 0 ? 0 : static_cast<uint32_t>(received) + LOWER_HEADERS;
    }
    m_kernel.fibers.Wake();
    Require(m_input->bytes - before == bytes, "every byte is counted");
    Deliver(TakeReceived(packets));
}

// What main takes from the queue after its wait: all that came at once.
std::vector<PacketBuffer*> World::TakeReceived(const std::vector<std::string_view>& packets)
{
    std::vector<PacketBuffer*> queued(MOST_TOGETHER);
    size_t wanted = 0;
    for (const std::string_view packet : packets)
        wanted += packet.empty() ? 0 : 1;
    queued.resize(
        wanted == 0 ? 0 : static_cast<size_t>(m_input->queue.popBatch(queued.data(), MOST_TOGETHER)));
    Require(queued.size() == wanted && m_input->queue.Count() == 0, "what was received is queued");
    auto next = queued.begin();
    for (const std::string_view packet : packets) {
        if (packet.empty())
            continue;
        const auto* bytes = reinterpret_cast<const char*>((*next)->Data());
        Require(std::string_view(bytes, static_cast<size_t>((*next)->Length()))
                == packet.substr(0, PacketBufferPool::SLICE_BYTES),
            "what was received is what is queued");
        ++next;
    }
    return queued;
}

void World::SendMedia(const std::vector<std::string_view>& packets)
{
    std::vector<PacketBuffer*> buffers;
    for (const std::string_view packet : packets) {
        PacketBuffer* buffer = m_replicator->PacketPool().get();
        const size_t length = std::min<size_t>(packet.size(), PacketBufferPool::SLICE_BYTES);
        std::memset(buffer->Data(), 0, PacketBufferPool::SLICE_BYTES);
        std::memcpy(buffer->Data(), packet.data(), length);
        buffer->SetLength(static_cast<int32_t>(length));
        buffers.push_back(buffer);
    }
    Deliver(buffers);
}

void World::Deliver(const std::vector<PacketBuffer*>& packets)
{
    if (packets.empty())
        return;
    std::vector<std::string_view> bytes;
    for (const PacketBuffer* packet : packets)
        bytes.emplace_back(
            reinterpret_cast<const char*>(packet->Data()), static_cast<size_t>(packet->Length()));
    m_sent.BeginMedia(
        bytes, FirstReceivers(), m_replicator->m_impair.m_mode != IMPAIRMENT_OFF, m_kernel.Ticks());
    const uint64_t before = m_replicator->RxStats().m_nRxPackets;
    (void)m_replicator->SendPackets(packets.data(), static_cast<int32_t>(packets.size()));
    Require(m_replicator->RxStats().m_nRxPackets == before + packets.size(), "every input packet is counted");
    m_sent.EndMedia(packets.data(), Holders());
}

void World::FailSends(uint8_t plan)
{
    m_refusals = Refusals(plan);
    if (m_refusals.ArePending())
        m_kernel.sockets.RaiseErrors(m_refusals.Error());
}

std::vector<const MyArqSendCB*> World::FirstReceivers() const
{
    if (const MyArqSendCB* group = m_replicator->MulticastStream())
        return { group };
    std::vector<const MyArqSendCB*> streams;
    const StreamTable::View view(m_replicator->Streams());
    view.ForEach([&](const MyArqSendCB& stream) {
        if (stream.m_bIsAlive)
            streams.push_back(&stream);
    });
    return streams;
}

std::vector<const MyArqSendCB*> World::Holders() const
{
    std::vector<const MyArqSendCB*> streams;
    const StreamTable::View view(m_replicator->Streams());
    view.ForEach([&](const MyArqSendCB& stream) { streams.push_back(&stream); });
    return streams;
}

MyArqSendCB* World::Find(in_addr_t addressNet, uint32_t streamId) const
{
    const StreamTable::View view(m_replicator->Streams());
    return view.Find(addressNet, streamId);
}
