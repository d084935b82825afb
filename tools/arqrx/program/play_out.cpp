#include "arqrx/program/play_out.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "arqrx/core/rtp_payload.h"

namespace arqrx {

namespace {

constexpr size_t MOST_PACKETS = 64; // that leave by one call
constexpr size_t BATCH_BYTES = 131'072; // no less than the longest datagram

// `part` of `whole`, to be changed.
std::span<uint8_t> Writable(std::span<uint8_t> whole, std::span<const uint8_t> part)
{
    if (part.empty())
        return {};
    return whole.subspan(static_cast<size_t>(part.data() - whole.data()), part.size());
}

} // namespace

PlayOut::PlayOut(std::vector<std::unique_ptr<Output>> outputs, std::unique_ptr<DecryptionLibrary> decryption)
    : m_outputs(std::move(outputs)),
      m_pDecryption(std::move(decryption)),
      m_bytes(BATCH_BYTES)
{
    m_packets.reserve(MOST_PACKETS);
}

void PlayOut::Add(const Packet& packet, int64_t nowUs)
{
    const size_t size = std::min(packet.datagram.size(), m_bytes.size());
    if (m_packets.size() == MOST_PACKETS || m_nUsed + size > m_bytes.size())
        Flush();
    std::memcpy(m_bytes.data() + m_nUsed, packet.datagram.data(), size);
    const std::span<uint8_t> datagram(m_bytes.data() + m_nUsed, size);
    const std::span<const uint8_t> payload = RtpPayload(datagram);
    if (packet.isRestart)
        m_continuity.Forget();
    if (!Decrypt(Writable(datagram, payload)))
        return;
    m_packets.push_back({ datagram, payload });
    m_continuity.Add(payload);
    m_nUsed += size;
    m_lateness.Add(nowUs - packet.dueUs);
}

// False when nothing good came of it.
bool PlayOut::Decrypt(std::span<uint8_t> payload)
{
    if (!m_pDecryption)
        return true;
    switch (m_pDecryption->Decrypt(payload)) {
    case DecryptionLibrary::Result::Clear:
        ++m_decrypted.clear;
        return true;
    case DecryptionLibrary::Result::Decrypted:
        ++m_decrypted.decrypted;
        return true;
    case DecryptionLibrary::Result::Undecided:
        ++m_decrypted.undecided;
    }
    return false;
}

void PlayOut::Flush()
{
    if (m_packets.empty())
        return;
    for (const std::unique_ptr<Output>& output : m_outputs)
        output->Send(m_packets);
    m_packets.clear();
    m_nUsed = 0;
}

void PlayOut::Finish(int64_t patienceUs)
{
    Flush();
    for (const std::unique_ptr<Output>& output : m_outputs)
        output->Finish(patienceUs);
}

bool PlayOut::HasNoneLeft() const
{
    return !m_outputs.empty()
        && std::all_of(m_outputs.begin(), m_outputs.end(),
            [](const std::unique_ptr<Output>& output) { return output->Counted().hasFailed; });
}

void PlayOut::Count(Sample& sample) const
{
    sample.playLateP50Us = m_lateness.Percentile(0.5);
    sample.playLateP99Us = m_lateness.Percentile(0.99);
    sample.transportPackets = m_continuity.Packets();
    sample.continuityErrors = m_continuity.Errors();
    if (m_pDecryption)
        sample.decryption = m_decrypted;
    for (const std::unique_ptr<Output>& output : m_outputs)
        sample.outputs.push_back(output->Counted());
}

} // namespace arqrx
