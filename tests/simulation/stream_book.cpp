#include "simulation/stream_book.h"

#include <algorithm>

#include "replicator/my_arq_send_cb.h"
#include "replicator/stream_table.h"
#include "simulation/failure.h"
#include "simulation/simulated_receiver.h"

namespace simulation {

namespace {

// Milliseconds are cut off on both sides.
constexpr int64_t SHORTEST_SILENCE_US = 4999000;
// A round of looks and some lateness of the machine.
constexpr int64_t LONGEST_SILENCE_US = 10600000;

} // namespace

std::vector<ReceiverIdentity> MakeReceivers(const Config& config)
{
    std::vector<ReceiverIdentity> receivers;
    for (int i = 0; i < config.Receivers(); ++i) {
        const bool isConfigured = i < config.configured;
        const int pings = i - config.configured; // the how manieth of those that ping
        const bool hasId = !isConfigured && pings % 2 != 0;
        const int host = hasId && config.sharesAddresses ? config.configured + pings / 4 * 4 + 1 : i;
        const bool isArqrx = HasArqrx()
            && Random(config.seed, Purpose::Arqrx, static_cast<uint32_t>(i) + 1).Chance(config.arqrxPermille);
        receivers.push_back({ i, htonl(0x0A010001U + static_cast<uint32_t>(host)),
            hasId ? 0x1D000000U + static_cast<uint32_t>(i) : 0, isConfigured, isArqrx });
    }
    return receivers;
}

StreamBook::StreamBook(Machine& machine, const Config& config, const std::vector<ReceiverIdentity>& receivers)
    : m_machine(machine),
      m_config(config),
      m_receivers(receivers),
      m_streams(receivers.size()),
      m_mayLeave(receivers.size())
{
}

void StreamBook::OnSocketMade()
{
    m_nSocketSeconds = static_cast<uint32_t>(m_machine.clock.WallUs() / 1000000);
}

bool StreamBook::IsUnchanged() const
{
    const StreamTable::View view(*m_pTable);
    if (static_cast<size_t>(view.Count()) != m_entries.size())
        return false;
    for (int32_t i = 0; i < view.Count(); ++i) {
        if (&view.At(i) != m_entries[static_cast<size_t>(i)])
            return false;
    }
    return true;
}

void StreamBook::Compare()
{
    if (m_pTable == nullptr || IsUnchanged())
        return;
    const std::vector<int> oldOrder = std::move(m_order);
    const std::vector<const MyArqSendCB*> oldEntries = std::move(m_entries);
    m_order.clear();
    m_entries.clear();
    const StreamTable::View view(*m_pTable);
    for (int32_t i = 0; i < view.Count(); ++i)
        m_entries.push_back(&view.At(i));
    for (size_t i = 0; i < oldEntries.size(); ++i) {
        if (std::count(m_entries.begin(), m_entries.end(), oldEntries[i]) == 0)
            Leave(oldOrder[i]);
    }
    for (const MyArqSendCB* entry : m_entries) {
        const int receiver = ReceiverOf(*entry);
        if (std::count(oldEntries.begin(), oldEntries.end(), entry) == 0)
            Join(receiver);
        m_order.push_back(receiver);
    }
}

int StreamBook::ReceiverOf(const MyArqSendCB& entry) const
{
    for (const ReceiverIdentity& receiver : m_receivers) {
        const bool isSame = receiver.streamId != 0
            ? receiver.streamId == entry.StreamId()
            : entry.StreamId() == 0 && receiver.addressNet == entry.AddressNet();
        if (isSame)
            return receiver.index;
    }
    Fail(Outcome::BrokenInvariant, "a stream to %s that is no receiver's", entry.HostText());
}

void StreamBook::Join(int receiver)
{
    StreamModel& stream = Of(receiver);
    REQUIRE_THAT(!stream.inTable, "receiver %d has two streams", receiver);
    REQUIRE_THAT(m_nMayJoin == receiver || m_nMayJoin == ALL,
        "the stream of receiver %d joins without a reason", receiver);
    stream = {};
    stream.inTable = true;
    stream.portNet = htons(DEST_PORT);
    stream.ssrc = m_nSocketSeconds;
    stream.engine.emplace(m_config.ringSize, m_config.grossMediaBitrate, m_config.udpInputMode);
    m_machine.Note(Happened::Joins, static_cast<uint64_t>(receiver));
}

void StreamBook::Leave(int receiver)
{
    StreamModel& stream = Of(receiver);
    const int64_t silentUs = m_machine.clock.NowUs() - stream.lastPingUs;
    const bool isSilent = !stream.isStatic && silentUs >= SHORTEST_SILENCE_US;
    REQUIRE_THAT(isSilent || m_mayLeave[static_cast<size_t>(receiver)],
        "the stream of receiver %d ended, %.6f s after its last ping", receiver,
        static_cast<double>(silentUs) / 1e6);
    stream = {};
    m_machine.Note(Happened::Leaves, static_cast<uint64_t>(receiver));
}

void StreamBook::OnPingServed(int receiver, uint16_t portNet, int64_t atUs)
{
    StreamModel& stream = Of(receiver);
    if (stream.isStatic)
        return;
    stream.lastPingUs = atUs;
    stream.lockHeldUs = m_nLockHeldUs;
    stream.portNet = portNet;
}

void StreamBook::CheckSilent() const
{
    for (const int receiver : m_order) {
        const StreamModel& stream = Of(receiver);
        const int64_t lateUs = 2 * (m_nLockHeldUs - stream.lockHeldUs);
        const int64_t silentUs = m_machine.clock.NowUs() - stream.lastPingUs;
        if (!stream.isStatic && silentUs > LONGEST_SILENCE_US + lateUs)
            Fail(Outcome::LostLiveness, "the stream of receiver %d stays, %.6f s after its last ping",
                receiver, static_cast<double>(silentUs) / 1e6);
    }
}

bool StreamBook::IsFull() const
{
    const auto count = static_cast<int32_t>(m_order.size());
    return count >= StreamTable::MAX_STREAMS || StreamTable::MAX_WAITING - m_pTable->Waiting() <= count;
}

int StreamBook::Find(in_addr_t addressNet, uint32_t streamId) const
{
    int byAddress = NOBODY;
    for (const int receiver : m_order) {
        const ReceiverIdentity& identity = m_receivers[static_cast<size_t>(receiver)];
        if (streamId != 0 && identity.streamId == streamId)
            return receiver;
        if (identity.streamId == 0 && identity.addressNet == addressNet && byAddress == NOBODY)
            byAddress = receiver;
    }
    return byAddress;
}

} // namespace simulation
