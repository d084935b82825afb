// What is sent, byte by byte, and what is counted.
#include <arpa/inet.h>

#include <algorithm>
#include <cinttypes>
#include <cstring>

#include "replicator/arq_send_replicator.h"
#include "replicator/my_arq_send_cb.h"
#include "simulation/checker.h"
#include "simulation/failure.h"

namespace simulation {

namespace {

constexpr size_t HEADER_BYTES = 12;
constexpr uint8_t STOP_MESSAGE_BYTES[] = { 0xDE, 0xAD, 0xBE, 0xEF, 0xBA, 0xBE, 0xFA, 0xCE };

void PutBig(uint8_t* to, uint32_t value, int bytes)
{
    for (int i = bytes - 1; i >= 0; --i, value >>= 8)
        to[i] = static_cast<uint8_t>(value);
}

} // namespace

int Checker::ReceiverAt(const sockaddr_in& destination) const
{
    const int port = ntohs(destination.sin_port);
    const int byPort = (port - ReceiverIdentity::FIRST_PORT) / ReceiverIdentity::PORTS_EACH;
    for (const ReceiverIdentity& receiver : m_receivers) {
        if (receiver.addressNet != destination.sin_addr.s_addr)
            continue;
        if (port == DEST_PORT ? receiver.streamId == 0 : receiver.index == byPort)
            return receiver.index;
    }
    Fail(Outcome::BrokenInvariant, "a datagram to port %d at an address where no such receiver is", port);
}

// Media to who pings leave from the port that was pinged, all others from a port of their own, always the same.
void Checker::CheckSocket(const kernel_model::Socket& socket, StreamModel& stream, int receiver) const
{
    if (stream.sourcePort == 0)
        stream.sourcePort = stream.isStatic ? socket.port : DEST_PORT;
    REQUIRE_THAT(socket.port == stream.sourcePort && (socket.port == DEST_PORT) != stream.isStatic,
        "a datagram to receiver %d leaves from port %d instead of %d", receiver, socket.port,
        stream.sourcePort);
}

// Whether the receiver at that place of the table has got what it gets of the first packets.
bool Checker::HasAll(size_t place, size_t packets) const
{
    sockaddr_in destination {};
    const int receiver = m_input.receivers[place];
    destination.sin_addr.s_addr = m_receivers[static_cast<size_t>(receiver)].addressNet;
    destination.sin_port = m_book.Of(receiver).portNet;
    size_t open = m_refused.Count(destination, receiver);
    for (size_t i = 0; i < packets; ++i) {
        if (m_input.packets[i].sending == Sending::Leaves && i >= m_input.next[place])
            ++open;
    }
    // What was refused are the last that were tried.
    for (size_t i = packets; i < m_input.next[place] && open > 0; ++i)
        open -= m_input.packets[i].sending == Sending::Leaves ? 1 : 0;
    return open == 0;
}

// The packet that a datagram is, of those that the receiver has not got. At random any may be withheld, from all.
size_t Checker::FindPacket(size_t place, int receiver, const uint8_t* bytes, size_t length)
{
    size_t i = m_input.next[place];
    for (; i < m_input.packets.size(); ++i) {
        Packet& packet = m_input.packets[i];
        if (packet.sending == Sending::Leaves)
            break;
        if (packet.sending == Sending::Withheld)
            continue;
        const std::vector<uint8_t> wanted = Expect(receiver, packet.buffer, packet.seq, packet.ticks, false);
        const bool isIt = std::equal(wanted.begin(), wanted.end(), bytes, bytes + length);
        packet.sending = isIt ? Sending::Leaves : Sending::Withheld;
        if (isIt)
            break;
    }
    REQUIRE_THAT(i < m_input.packets.size(), "receiver %d gets more than the %zu packets that are sent",
        receiver, m_input.packets.size());
    return i;
}

Delivery Checker::CheckMedia(int receiver, const uint8_t* bytes, size_t length)
{
    const auto found = std::find(m_input.receivers.begin(), m_input.receivers.end(), receiver);
    REQUIRE_THAT(
        found != m_input.receivers.end(), "receiver %d joined behind the packets that it gets", receiver);
    const auto place = static_cast<size_t>(found - m_input.receivers.begin());
    const size_t index = FindPacket(place, receiver, bytes, length);
    REQUIRE_THAT(place == 0 || HasAll(place - 1, index + 1), "receiver %d gets packet %zu before receiver %d",
        receiver, index, m_input.receivers[place - 1]);
    m_input.next[place] = index + 1;
    const Packet& packet = m_input.packets[index];
    m_machine.Note(Happened::SendsMedia, static_cast<uint64_t>(receiver), packet.seq,
        m_contents[static_cast<size_t>(packet.buffer)].input);
    CheckPacket(receiver, packet.buffer, packet.seq, packet.ticks, false, bytes, length);
    return { Delivery::Kind::Media, receiver, m_book.Of(receiver).portNet, packet.seq, {} };
}

Delivery Checker::CheckAnswer(int receiver, const uint8_t* bytes, size_t length)
{
    REQUIRE_THAT(
        m_nNextExpected < m_expected.size(), "receiver %d gets an answer that it must not get", receiver);
    const Expected& expected = m_expected[m_nNextExpected++];
    REQUIRE_THAT(expected.delivery.receiver == receiver, "receiver %d gets the answer to receiver %d",
        receiver, expected.delivery.receiver);
    if (expected.delivery.kind == Delivery::Kind::Echo) {
        m_machine.Note(Happened::SendsEcho, static_cast<uint64_t>(receiver));
        REQUIRE_THAT(length == expected.echo.size() && std::memcmp(bytes, expected.echo.data(), length) == 0,
            "an echo to receiver %d is not what it sent", receiver);
        return expected.delivery;
    }
    const ExpectedResend& resend = expected.resend;
    m_machine.Note(Happened::SendsAgain, static_cast<uint64_t>(receiver), resend.seq,
        m_contents[static_cast<size_t>(resend.buffer)].input);
    CheckPacket(receiver, resend.buffer, resend.seq, resend.timestampTicks, true, bytes, length);
    return expected.delivery;
}

Delivery Checker::CheckStop(int receiver, const uint8_t* bytes, size_t length)
{
    constexpr int64_t GAP_US = 20000;
    m_machine.Note(Happened::SendsStop, static_cast<uint64_t>(receiver));
    REQUIRE_THAT(m_deleting.receiver == receiver, "receiver %d is told to stop instead of %d", receiver,
        m_deleting.receiver);
    REQUIRE_THAT(length == sizeof(STOP_MESSAGE_BYTES) && std::memcmp(bytes, STOP_MESSAGE_BYTES, length) == 0,
        "a stop message to receiver %d has other bytes", receiver);
    REQUIRE_THAT(m_machine.clock.NowUs() - m_deleting.beganUs >= m_deleting.stops * GAP_US,
        "the stop messages to receiver %d come too fast", receiver);
    ++m_deleting.stops;
    return { Delivery::Kind::Stop, receiver, m_book.Of(receiver).portNet, 0, {} };
}

// The payload is as it came; the header too, but for the time of the first sending and, in a resend, the mark of
// one. A built header is written out whole.
std::vector<uint8_t> Checker::Expect(
    int receiver, int32_t buffer, uint16_t seq, uint32_t ticks, bool isResend)
{
    const uint8_t* payload = BytesOf(buffer);
    std::vector<uint8_t> wanted(payload, payload + m_contents[static_cast<size_t>(buffer)].length);
    if (m_config.udpInputMode) {
        const uint8_t built[HEADER_BYTES] = { 0x80, 0x21 };
        wanted.insert(wanted.begin(), built, built + sizeof(built));
        std::memcpy(&wanted[8], &m_book.Of(receiver).ssrc, 4);
    }
    PutBig(&wanted[2], seq, 2);
    PutBig(&wanted[4], ticks, 4);
    if (isResend)
        wanted[1] = static_cast<uint8_t>((wanted[1] & 0x80) | 122);
    return wanted;
}

void Checker::CheckPacket(int receiver, int32_t buffer, uint16_t seq, uint32_t ticks, bool isResend,
    const uint8_t* bytes, size_t length)
{
    const std::vector<uint8_t> wanted = Expect(receiver, buffer, seq, ticks, isResend);
    REQUIRE_THAT(length == wanted.size(), "number %d to receiver %d has %zu bytes instead of %zu", seq,
        receiver, length, wanted.size());
    for (size_t i = 0; i < length; ++i)
        REQUIRE_THAT(bytes[i] == wanted[i],
            "number %d to receiver %d has 0x%02x in byte %zu instead of 0x%02x", seq, receiver, bytes[i], i,
            wanted[i]);
}

// The status thread reads the time of day once a second to turn bytes into rates, and once before the first.
void Checker::OnTimeOfDay()
{
    if (m_pReplicator == nullptr || m_machine.fibers.Current() != m_nStatusFiber)
        return;
    const auto nowUs = static_cast<uint32_t>(m_machine.clock.WallUs());
    if (m_bSampling) {
        Sample(m_rxBytes, nowUs);
        Sample(m_txBytes, nowUs);
        if (m_rxBytes.sum >> 32 != 0)
            m_wraps.Add(Wrap::RxBytes);
        if (m_txBytes.sum >> 32 != 0)
            m_wraps.Add(Wrap::TxBytes);
    }
    m_rxBytes.sum = 0;
    m_txBytes.sum = 0;
    m_bSampling = true;
    m_nSampledUs = nowUs;
}

void Checker::Sample(Bytes& bytes, uint32_t nowUs) const
{
    const auto elapsedUs = static_cast<int32_t>(nowUs - m_nSampledUs);
    const auto sum = static_cast<int64_t>(static_cast<uint32_t>(bytes.sum));
    bytes.rate = elapsedUs == 0 ? 0 : static_cast<uint32_t>(sum * 8000000 / elapsedUs);
}

// After each look of the keep-alive thread: only so it is known when a stream has ended.
void Checker::OnSteadyTime()
{
    if (m_pReplicator != nullptr && m_machine.fibers.Current() == m_nKeepAliveFiber)
        m_book.Compare();
}

// No input makes 4 GiB in a second, so the counters are put near their end by hand, once.
void Checker::PrimeByteCounters()
{
    constexpr uint32_t NEAR_END = 0xFFFFFFFF - 10;
    const_cast<ReceiveStats&>(m_pReplicator->RxStats()).m_nRxBytes = NEAR_END;
    const_cast<TransmitStats&>(m_pReplicator->TxStats()).m_nTxBytes = NEAR_END;
    m_rxBytes.sum = NEAR_END;
    m_txBytes.sum = NEAR_END;
    m_bPrimed = true;
}

void Checker::CheckCounters()
{
    m_book.Compare();
    m_book.CheckSilent();
    const ReceiveStats& rx = m_pReplicator->RxStats();
    const TransmitStats& tx = m_pReplicator->TxStats();
    REQUIRE_THAT(rx.m_nRxPackets == m_nRxPackets, "%" PRIu64 " packets counted instead of %" PRIu64,
        rx.m_nRxPackets.Load(), m_nRxPackets);
    REQUIRE_THAT(
        rx.m_nRxLoss == m_nRxLoss, "a loss of %d counted instead of %d", rx.m_nRxLoss.Load(), m_nRxLoss);
    REQUIRE_THAT(tx.m_nTxPackets == m_nTxPackets, "%" PRIu64 " datagrams counted instead of %" PRIu64,
        tx.m_nTxPackets.Load(), m_nTxPackets);
    REQUIRE_THAT(rx.m_nRxBitrate == m_rxBytes.rate, "%u bit/s received instead of %u", rx.m_nRxBitrate.Load(),
        m_rxBytes.rate);
    REQUIRE_THAT(tx.m_nTxBitrate == m_txBytes.rate, "%u bit/s sent instead of %u", tx.m_nTxBitrate.Load(),
        m_txBytes.rate);
    REQUIRE_THAT(m_pReplicator->m_nDropPacket == m_nDropped, "%d packets withheld instead of %d",
        m_pReplicator->m_nDropPacket.Load(), m_nDropped);
    for (size_t place = 0; place < m_book.Order().size(); ++place) {
        const int receiver = m_book.Order()[place];
        const StreamModel& stream = m_book.Of(receiver);
        const MyArqSendCB& entry = m_book.Entry(place);
        REQUIRE_THAT(entry.m_bIsAlive, "the stream of receiver %d stands still", receiver);
        ArqSendStats stats {};
        entry.m_pEngine->GetStats(&stats);
        REQUIRE_THAT(std::memcmp(&stats, &stream.engine->Stats(), sizeof(stats)) == 0,
            "the engine's counters of receiver %d: sent again %u, %u expected; not in buffer %u, %u; expired %u, "
            "%u; over budget %u, %u; run %u, %u",
            receiver, stats.retransmitted, stream.engine->Stats().retransmitted, stats.notInBuffer,
            stream.engine->Stats().notInBuffer, stats.expired, stream.engine->Stats().expired,
            stats.overBudget, stream.engine->Stats().overBudget, stats.longestRun,
            stream.engine->Stats().longestRun);
    }
    if (!m_bPrimed && m_bSampling && !m_book.Order().empty())
        PrimeByteCounters();
}

void Checker::WatchClocks()
{
    const int64_t wallUs = m_machine.clock.WallUs();
    const int64_t steadyUs = m_machine.clock.SteadyUs();
    const bool isSteady = m_bHasReadings && wallUs - m_nLastWallUs == steadyUs - m_nLastSteadyUs; // no step
    if (isSteady) {
        const auto low = [](int64_t value) { return static_cast<uint32_t>(value); };
        m_wraps.Watch(TicksOf(m_nLastWallUs), TicksOf(wallUs), Wrap::MediaTicks, Wrap::MediaTicksSign);
        m_wraps.Watch(low(m_nLastWallUs / 1000), low(wallUs / 1000), Wrap::WallMs, Wrap::WallMsSign);
        m_wraps.Watch(low(m_nLastWallUs), low(wallUs), Wrap::WallUs, Wrap::WallUsSign);
        m_wraps.Watch(
            low(m_nLastWallUs / 1000000), low(wallUs / 1000000), Wrap::WallSeconds, Wrap::WallSecondsSign);
        m_wraps.Watch(low(m_nLastSteadyUs / 1000), low(steadyUs / 1000), Wrap::SteadyMs, Wrap::SteadyMsSign);
    }
    m_bHasReadings = true;
    m_nLastWallUs = wallUs;
    m_nLastSteadyUs = steadyUs;
}

} // namespace simulation
