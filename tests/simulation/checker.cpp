// The expectations: what is put in, asked for and commanded, and what must follow.
#include "simulation/checker.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <iterator>

#include "input/packet_buffer.h"
#include "replicator/arq_send_replicator.h"
#include "simulation/failure.h"
#include "simulation/words.h"

namespace simulation {

using kernel_model::Attempt;
using kernel_model::Fate;

namespace {

constexpr uint32_t POOL_MARGIN = 1024;
constexpr uint32_t STOP_MAGIC = 0xDEADBEEF;
constexpr uint32_t ID_MAGIC = 0xBABEFACE;

uint32_t Word32(const uint8_t* bytes)
{
    uint32_t word = 0;
    std::memcpy(&word, bytes, sizeof(word));
    return word;
}

bool HasMagic(const std::vector<uint8_t>& bytes, uint32_t magic)
{
    return bytes.size() >= 4
        && (Word32(bytes.data()) == magic || Word32(bytes.data()) == __builtin_bswap32(magic));
}

uint32_t IdOf(const std::vector<uint8_t>& bytes)
{
    const bool isTag = bytes.size() >= 8 && (HasMagic(bytes, STOP_MAGIC) || HasMagic(bytes, ID_MAGIC));
    return isTag ? Word32(bytes.data() + 4) : 0;
}

bool IsChecksumRight(const uint8_t* bytes, size_t length)
{
    uint32_t sum = Word16(bytes + 2);
    size_t at = 10;
    for (; at + 1 < length; at += 2)
        sum += Word16(bytes + at);
    if (at < length)
        sum += bytes[at];
    return sum % 65536 == 0;
}

} // namespace

Checker::Checker(Machine& machine, const Config& config, const std::vector<ReceiverIdentity>& receivers,
    Postman& postman, WrapCounts& wraps)
    : m_machine(machine),
      m_config(config),
      m_receivers(receivers),
      m_postman(postman),
      m_wraps(wraps),
      m_book(machine, config, receivers),
      m_socketRandom(config.seed, Purpose::Socket),
      m_contents(static_cast<size_t>(config.ringSize) + POOL_MARGIN),
      m_bytes(m_contents.size() * SLICE_BYTES),
      m_lastInput(receivers.size())
{
}

void Checker::Attach(ArqSendReplicator& replicator, int firstFiber)
{
    m_pReplicator = &replicator;
    m_book.Watch(&replicator.Streams());
    m_nKeepAliveFiber = firstFiber + 1;
    m_nStatusFiber = firstFiber + 2;
    m_book.AllowJoin(StreamBook::ALL);
    m_book.Compare();
    m_book.AllowJoin(StreamBook::NOBODY);
    for (const ReceiverIdentity& receiver : m_receivers) {
        REQUIRE_THAT(m_book.Of(receiver.index).inTable == receiver.configured, "destination %d at the start",
            receiver.index);
        m_book.Of(receiver.index).isStatic = receiver.configured;
    }
}

void Checker::Detach()
{
    m_pReplicator = nullptr;
    m_book.Watch(nullptr);
}

int32_t Checker::BufferOf(const PacketBuffer& packet) const
{
    return static_cast<int32_t>(&packet - m_pFirstBuffer);
}

void Checker::OnFilled(const PacketBuffer& packet, uint16_t seq)
{
    if (m_pFirstBuffer == nullptr)
        m_pFirstBuffer = &packet;
    const int32_t buffer = BufferOf(packet);
    if (buffer == 0 && m_nInputs != 0)
        m_wraps.Add(Wrap::PoolRing);
    m_contents[static_cast<size_t>(buffer)] = { m_nInputs, seq, packet.Length(), true };
    std::memcpy(BytesOf(buffer), packet.Data(), static_cast<size_t>(packet.Length()));
    m_machine.Note(Happened::Input, m_nInputs, seq, static_cast<uint64_t>(packet.Length()));
    ++m_nInputs;
}

void Checker::BeginInput(PacketBuffer* const* packets, int32_t count)
{
    m_book.Compare();
    m_input.fiber = m_machine.fibers.Current();
    m_input.packets.clear();
    m_input.receivers = m_book.Order();
    m_input.next.assign(m_input.receivers.size(), 0);
    m_input.dropsBefore = m_pReplicator->m_nDropPacket;
    for (int32_t i = 0; i < count; ++i)
        ExpectPacket(*packets[i]);
}

void Checker::ExpectPacket(const PacketBuffer& packet)
{
    const int32_t buffer = BufferOf(packet);
    const BufferContent& content = m_contents[static_cast<size_t>(buffer)];
    ++m_nRxPackets;
    m_rxBytes.sum += static_cast<uint64_t>(content.length);
    uint16_t seq = content.seq;
    if (m_config.udpInputMode) {
        seq = ++m_usBuiltSeq;
        if (seq == 0)
            m_wraps.Add(Wrap::BuiltSeq);
    } else {
        CountLoss(seq);
    }
    Sending sending = Sending::Open;
    if (!m_impairment.IsRandom())
        sending = m_impairment.Step() ? Sending::Withheld : Sending::Leaves;
    m_input.packets.push_back({ buffer, seq, NowTicks(), sending });
    m_input.newestSeq = seq;
    TellSource(m_input.packets.back());
}

void Checker::TellSource(const Packet& packet)
{
    for (const int receiver : m_input.receivers) {
        if (m_receivers[static_cast<size_t>(receiver)].readsBytes)
            m_postman.TellSource(
                receiver, packet.seq, Expect(receiver, packet.buffer, packet.seq, packet.ticks, false));
    }
}

void Checker::CountLoss(uint16_t seq)
{
    const auto gap = static_cast<int16_t>(seq - m_usExpectedSeq);
    if (!m_bFirstRxPacket && gap > 0)
        m_nRxLoss += gap;
    if (!m_bFirstRxPacket && gap >= 0 && seq < m_usExpectedSeq)
        m_wraps.Add(Wrap::InputSeq);
    if (m_usExpectedSeq == 0 && seq == 0)
        m_wraps.Add(Wrap::InputSeq);
    m_bFirstRxPacket = false;
    m_usExpectedSeq = static_cast<uint16_t>(seq + 1);
}

void Checker::EndInput()
{
    CheckSettled();
    const int32_t drops = m_pReplicator->m_nDropPacket - m_input.dropsBefore;
    const bool isKnown = !m_impairment.IsRandom() || !m_input.receivers.empty();
    int32_t withheld = 0;
    for (const Packet& packet : m_input.packets) {
        if (packet.sending == Sending::Leaves)
            continue;
        ++withheld;
        if (isKnown)
            m_machine.Note(Happened::Withheld, m_contents[static_cast<size_t>(packet.buffer)].input);
    }
    REQUIRE_THAT(drops == withheld || (!isKnown && drops <= withheld), "%d packets withheld instead of %d",
        drops, withheld);
    m_nDropped += drops;
    for (size_t place = 0; place < m_input.receivers.size(); ++place) {
        REQUIRE_THAT(HasAll(place, m_input.packets.size()), "receiver %d did not get all of %zu packets",
            m_input.receivers[place], m_input.packets.size());
    }
    for (const Packet& packet : m_input.packets) {
        for (const int receiver : m_book.Order())
            m_book.Of(receiver).engine->Store(packet.seq, packet.buffer, packet.ticks);
    }
    m_input.fiber = Fibers::NONE;
}

void Checker::BeginAdd(int receiver)
{
    m_book.Compare();
    m_book.AllowJoin(receiver);
    m_bWasThere = m_book.Of(receiver).inTable;
}

void Checker::EndAdd(int receiver)
{
    m_book.Compare();
    m_book.AllowJoin(StreamBook::NOBODY);
    StreamModel& stream = m_book.Of(receiver);
    REQUIRE_THAT(stream.inTable || m_book.IsFull(), "receiver %d was not added", receiver);
    if (!m_bWasThere && stream.inTable)
        stream.isStatic = true;
}

void Checker::BeginDelete(int receiver)
{
    m_book.Compare();
    m_book.AllowLeave(receiver, true);
    m_deleting
        = { m_machine.fibers.Current(), receiver, m_book.Of(receiver).inTable, 0, m_machine.clock.NowUs() };
}

void Checker::EndDelete(int receiver)
{
    m_book.Compare();
    m_book.AllowLeave(receiver, false);
    m_book.OnLockHeld(m_machine.clock.NowUs() - m_deleting.beganUs);
    CheckSettled();
    REQUIRE_THAT(!m_book.Of(receiver).inTable, "receiver %d is still there after Delete", receiver);
    const int wanted = m_deleting.isExpected ? 5 : 0;
    REQUIRE_THAT(m_deleting.stops == wanted, "%d stop messages instead of %d", m_deleting.stops, wanted);
    m_deleting = {};
}

void Checker::OnRead(uint16_t port, const kernel_model::ReceivedDatagram& datagram)
{
    auto& read = port == DEST_PORT ? m_readPings : m_readRequests;
    m_sends.readTogether += read.empty() ? 0 : 1;
    read.push_back(datagram);
}

void Checker::OnWaiting()
{
    REQUIRE_THAT(m_readPings.empty() && m_readRequests.empty(),
        "%zu pings and %zu requests are read and not served", m_readPings.size(), m_readRequests.size());
}

void Checker::OnServe(uint16_t port, const kernel_model::ReceivedDatagram& datagram)
{
    m_book.Compare();
    auto& read = port == DEST_PORT ? m_readPings : m_readRequests;
    REQUIRE_THAT(!read.empty() && read.front().addressNet == datagram.addressNet
            && read.front().portNet == datagram.portNet && read.front().bytes == datagram.bytes,
        "what is served at port %d is not what was read there next", port);
    read.pop_front();
    const int receiver
        = (ntohs(datagram.portNet) - ReceiverIdentity::FIRST_PORT) / ReceiverIdentity::PORTS_EACH;
    m_serving = { m_machine.fibers.Current(), port == DEST_PORT, false, receiver, datagram.portNet,
        m_machine.clock.NowUs() };
    m_expected.clear();
    m_nNextExpected = 0;
    if (m_serving.isPing)
        ServePing(datagram);
    else
        ServeRequest(datagram);
}

void Checker::ServePing(const kernel_model::ReceivedDatagram& datagram)
{
    m_serving.isStop = HasMagic(datagram.bytes, STOP_MAGIC);
    m_machine.Note(Happened::TakesPing, static_cast<uint64_t>(m_serving.receiver), ntohs(datagram.portNet),
        m_serving.isStop ? 1 : 0);
    if (m_serving.isStop)
        m_book.AllowLeave(m_serving.receiver, true);
    else
        m_book.AllowJoin(m_serving.receiver);
}

void Checker::OnServed()
{
    if (m_serving.fiber == Fibers::NONE)
        return;
    if (m_serving.isPing)
        PingServed();
    CheckSettled();
    REQUIRE_THAT(m_nNextExpected == m_expected.size(), "%zu of %zu answers to receiver %d are missing",
        m_expected.size() - m_nNextExpected, m_expected.size(), m_serving.receiver);
    m_serving.fiber = Fibers::NONE;
}

void Checker::PingServed()
{
    const int receiver = m_serving.receiver;
    m_book.Compare();
    m_book.AllowJoin(StreamBook::NOBODY);
    m_book.AllowLeave(receiver, m_deleting.receiver == receiver);
    const StreamModel& stream = m_book.Of(receiver);
    if (m_serving.isStop) {
        REQUIRE_THAT(!stream.inTable, "receiver %d is still there after its stop message", receiver);
        return;
    }
    REQUIRE_THAT(stream.inTable || m_book.IsFull(), "the ping of receiver %d made no stream", receiver);
    if (stream.inTable)
        m_book.OnPingServed(receiver, m_serving.portNet, m_serving.atUs);
}

void Checker::ServeRequest(const kernel_model::ReceivedDatagram& datagram)
{
    m_machine.Note(Happened::TakesRequest, static_cast<uint64_t>(m_serving.receiver), datagram.bytes.size());
    const uint32_t streamId = IdOf(datagram.bytes);
    const int receiver = m_book.Find(datagram.addressNet, streamId);
    if (receiver == StreamBook::NOBODY)
        return;
    const size_t tagBytes = streamId != 0 ? 8 : 0;
    const uint8_t* bytes = datagram.bytes.data() + tagBytes;
    const size_t length = datagram.bytes.size() - tagBytes;
    if (length < 10)
        ExpectEcho(receiver, bytes, length);
    else if (IsChecksumRight(bytes, length))
        ExpectResends(receiver, bytes, length);
}

void Checker::ExpectEcho(int receiver, const uint8_t* bytes, size_t length)
{
    constexpr uint8_t PING[] = { 0, 0, 0xAD, 0xE2 };
    if (length < sizeof(PING) || std::memcmp(bytes, PING, sizeof(PING)) != 0)
        return;
    m_expected.push_back({ { Delivery::Kind::Echo, receiver, m_book.Of(receiver).portNet, 0, {} },
        { bytes, bytes + length }, {} });
}

void Checker::ExpectResends(int receiver, const uint8_t* bytes, size_t length)
{
    EngineModel::Request request { Word16(bytes + 4), Word16(bytes + 6), Word16(bytes + 8), {} };
    for (size_t i = 0; i < Word16(bytes) && 10 + 2 * i + 1 < length; ++i)
        request.seqs.push_back(Word16(bytes + 10 + 2 * i));
    StreamModel& stream = m_book.Of(receiver);
    const uint16_t newest = m_input.newestSeq;
    stream.engine->Answer(request, m_contents, NowTicks(),
        [&](uint16_t seq, EngineModel::Verdict verdict, const std::optional<ExpectedResend>& resend) {
            m_postman.TellVerdict(receiver, seq, verdict);
            if (!resend)
                return;
            if (newest < 0x4000 && seq > 0xC000)
                m_wraps.Add(Wrap::ResentSeq);
            m_expected.push_back(
                { { Delivery::Kind::Resend, receiver, stream.portNet, seq, {} }, {}, *resend });
        });
}

void Checker::OnStatsCleared(bool rx, bool tx)
{
    if (rx) {
        m_nRxPackets = 0;
        m_nRxLoss = 0;
        m_bFirstRxPacket = true;
    }
    if (tx) {
        m_nTxPackets = 0;
        m_txBytes.rate = 0;
    }
}

std::string Checker::ClientList() const
{
    std::string list;
    for (const int receiver : m_book.Order()) {
        char text[INET_ADDRSTRLEN] = "";
        const in_addr address { m_receivers[static_cast<size_t>(receiver)].addressNet };
        (void)inet_ntop(AF_INET, &address, text, sizeof(text));
        list += (list.empty() ? "" : ",") + std::string(text);
    }
    return list;
}

std::string Checker::ExpectedReply(const std::string& command) const
{
    if (command == "List")
        return ClientList();
    if (command == "RxStat")
        return "NET_TOTAL_PACKETS=" + std::to_string(m_nRxPackets) + "\nNET_LOSS=" + std::to_string(m_nRxLoss)
            + "\n";
    if (command == "AllStats")
        return "RECV_PACKETS=" + std::to_string(m_nRxPackets)
            + "\nRECV_BITRATE=" + std::to_string(static_cast<int32_t>(m_rxBytes.rate)) + "\nRECV_LOSS="
            + std::to_string(m_nRxLoss) + "\nSEND_PACKETS=" + std::to_string(m_nTxPackets) + "\nSEND_BITRATE="
            + std::to_string(static_cast<int32_t>(m_txBytes.rate)) + "\nCLIENTS=" + ClientList();
    if (command == "StatClear")
        return "OK: Stat Reset";
    if (command == "RxStatClear")
        return "OK: Rx Stat Reset";
    if (command == "TxStatClear")
        return "OK: Tx Stat Reset";
    const size_t blank = command.find(' ');
    if (command.compare(0, blank, "Add") == 0)
        return "OK: Adding: " + command.substr(blank + 1);
    if (command.compare(0, blank, "Delete") == 0)
        return "OK: Deleting: " + command.substr(blank + 1);
    return "command not implemented";
}

int Checker::Refuse(const Attempt& attempt)
{
    constexpr int TRAIN_ERRORS[] = { EIO, EINVAL, EMSGSIZE, EPERM, ENOBUFS };
    if (!m_bFaults)
        return 0;
    if (!attempt.mayWait && m_socketRandom.Chance(m_config.fullPermille)) {
        ++m_sends.wouldWait;
        return EAGAIN;
    }
    if (attempt.message.IsTrain() && m_socketRandom.Chance(m_config.refusedTrainPermille))
        return TRAIN_ERRORS[m_socketRandom.Between(0, std::size(TRAIN_ERRORS) - 1)];
    return m_socketRandom.Chance(m_config.refusedPermille) ? ENOBUFS : 0;
}

void Checker::OnMessage(const Attempt& attempt, Fate fate)
{
    const auto onFirst
        = [&](const uint8_t* bytes, size_t length) { return Recognise(attempt, bytes, length); };
    const auto onLeft = [&](const Delivery& delivery, size_t length) {
        m_txBytes.sum += delivery.kind != Delivery::Kind::Stop ? length : 0;
        m_postman.SendDown(delivery);
    };
    const bool isStop = m_machine.fibers.Current() == m_deleting.fiber;
    if (isStop && fate == Fate::MustComeAgain && attempt.IsNamed())
        fate = Fate::MayComeAgain; // a stop message never waits, and others follow
    if (fate != Fate::Left)
        m_machine.Note(Happened::SendRefused, static_cast<uint64_t>(ReceiverAt(attempt.destination)));
    const char* wrong = m_refused.Take(attempt, fate, onFirst, onLeft);
    REQUIRE_THAT(wrong == nullptr, "a datagram to receiver %d: %s", ReceiverAt(attempt.destination), wrong);
    CountMessage(attempt, fate);
}

Delivery Checker::Recognise(const Attempt& attempt, const uint8_t* bytes, size_t length)
{
    const int fiber = m_machine.fibers.Current();
    const uint16_t portNet = attempt.destination.sin_port;
    const int receiver = ReceiverAt(attempt.destination);
    StreamModel& stream = m_book.Of(receiver);
    REQUIRE_THAT(stream.inTable, "a datagram to receiver %d, who has no stream", receiver);
    REQUIRE_THAT(portNet == stream.portNet, "a datagram to receiver %d at port %d instead of %d", receiver,
        ntohs(portNet), ntohs(stream.portNet));
    CheckSocket(attempt.socket, stream, receiver);
    Delivery delivery {};
    if (fiber == m_input.fiber)
        delivery = CheckMedia(receiver, bytes, length);
    else if (fiber == m_serving.fiber)
        delivery = CheckAnswer(receiver, bytes, length);
    else if (fiber == m_deleting.fiber)
        delivery = CheckStop(receiver, bytes, length);
    else
        Fail(Outcome::BrokenInvariant, "a datagram to receiver %d without a reason", receiver);
    m_machine.trace.AddBytes(bytes, length);
    if (m_receivers[static_cast<size_t>(receiver)].readsBytes)
        delivery.bytes.assign(bytes, bytes + length);
    m_nTxPackets += delivery.kind != Delivery::Kind::Stop ? 1 : 0;
    return delivery;
}

// A receiver whose port is closed, or a router on the way, may tell so: whoever has a socket for that receiver alone
// hears of it.
void Checker::CountMessage(const Attempt& attempt, Fate fate)
{
    constexpr int ANSWERS[] = { ECONNREFUSED, EHOSTUNREACH, EMSGSIZE };
    const uint64_t count = attempt.message.Datagrams();
    if (count > 1 && fate != Fate::Left)
        ++m_sends.refusedTrains;
    if (attempt.index > 0 && fate != Fate::Left)
        ++m_sends.partialMany;
    if (fate != Fate::Left)
        return;
    if (count > 1) {
        ++m_sends.trains;
        m_sends.inTrains += count;
    }
    if (!attempt.socket.peer || !m_bFaults || !m_socketRandom.Chance(m_config.answeredPermille))
        return;
    ++m_sends.pendingErrors;
    m_machine.sockets.Find(attempt.fd)->pendingError
        = ANSWERS[m_socketRandom.Between(0, std::size(ANSWERS) - 1)];
}

void Checker::CheckSettled() const
{
    REQUIRE_THAT(m_refused.IsEmpty(), "datagrams that were refused are lost, without a try of their own");
}

void Checker::OnSocketMade()
{
    m_book.OnSocketMade();
}

} // namespace simulation
