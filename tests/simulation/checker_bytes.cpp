// What is sent, byte by byte, and what is counted.
#include <arpa/inet.h>

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

// Media to who pings leave from the port that was pinged, all others from a port of their own.
void Checker::CheckSocket(int fd, const StreamModel& stream, int receiver) const
{
    const VirtualSockets::Socket* socket = m_machine.sockets.Find(fd);
    const uint16_t wanted = stream.isStatic ? 0 : DEST_PORT;
    REQUIRE_THAT(socket->port == wanted, "a datagram to receiver %d leaves from port %d instead of %d",
        receiver, socket->port, wanted);
}

Delivery Checker::CheckMedia(int receiver, const uint8_t* bytes, size_t length)
{
    const uint64_t input = m_contents[static_cast<size_t>(m_input.buffer)].input;
    uint64_t& last = m_lastInput[static_cast<size_t>(receiver)];
    REQUIRE_THAT(last != input + 1, "input %" PRIu64 " goes to receiver %d twice", input, receiver);
    last = input + 1;
    m_machine.Note(Happened::SendsMedia, static_cast<uint64_t>(receiver), m_input.seq, input);
    CheckPacket(receiver, m_input.buffer, m_input.seq, m_input.ticks, false, bytes, length);
    ++m_input.sent;
    return { Delivery::Kind::Media, receiver, m_book.Of(receiver).portNet, m_input.seq };
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
    return { Delivery::Kind::Stop, receiver, m_book.Of(receiver).portNet, 0 };
}

// The payload is as it came; the header too, but for the time of the first sending and, in a resend, the mark of
// one. A built header is written out whole.
void Checker::CheckPacket(int receiver, int32_t buffer, uint16_t seq, uint32_t ticks, bool isResend,
    const uint8_t* bytes, size_t length)
{
    const auto wanted = static_cast<size_t>(m_contents[static_cast<size_t>(buffer)].length);
    const uint8_t* payload = BytesOf(buffer);
    uint8_t header[HEADER_BYTES] = { 0x80, 0x21 };
    size_t payloadBytes = wanted;
    if (m_config.udpInputMode) {
        std::memcpy(header + 8, &m_book.Of(receiver).ssrc, 4);
    } else {
        std::memcpy(header, payload, sizeof(header));
        payload += sizeof(header);
        payloadBytes -= sizeof(header);
    }
    PutBig(header + 2, seq, 2);
    PutBig(header + 4, ticks, 4);
    if (isResend)
        header[1] = static_cast<uint8_t>((header[1] & 0x80) | 122);
    REQUIRE_THAT(length == payloadBytes + HEADER_BYTES,
        "number %d to receiver %d has %zu bytes instead of %zu", seq, receiver, length,
        payloadBytes + HEADER_BYTES);
    for (size_t i = 0; i < HEADER_BYTES; ++i)
        REQUIRE_THAT(bytes[i] == header[i],
            "number %d to receiver %d has 0x%02x in byte %zu of its header instead of 0x%02x", seq, receiver,
            bytes[i], i, header[i]);
    REQUIRE_THAT(std::memcmp(bytes + HEADER_BYTES, payload, payloadBytes) == 0,
        "number %d to receiver %d has another payload", seq, receiver);
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
