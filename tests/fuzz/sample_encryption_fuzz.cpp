// The sample encryption library, loaded as the proxy and arqrx load it: sessions with any password, datagrams with any
// bytes and any length in a buffer that had any other before. Each call is given memory of just its size.
#include <openssl/evp.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "arqrx/program/decryption_library.h"
#include "base/rtp.h"
#include "fuzz/world/input_reader.h"
#include "fuzz/world/require.h"
#include "input/data_callback_region.h"
#include "input/packet_buffer.h"
#include "main/encryption_plugin.h"

// Stands before libcrypto's: that one takes a tenth of a second, on purpose. Other keys for another password, at once.
extern "C" int EVP_PBE_scrypt(const char* password, size_t passwordBytes, const unsigned char* /*salt*/,
    size_t /*saltBytes*/, uint64_t /*cost*/, uint64_t /*blocks*/, uint64_t /*lanes*/, uint64_t /*memory*/,
    unsigned char* key, size_t keyBytes)
{
    constexpr uint64_t FACTOR = 6364136223846793005;
    uint64_t state = passwordBytes;
    for (const char letter : std::string_view(password, passwordBytes))
        state = (state ^ static_cast<uint8_t>(letter)) * FACTOR + 1;
    for (size_t i = 0; i < keyBytes; ++i) {
        state = state * FACTOR + 1;
        key[i] = static_cast<unsigned char>(state >> 56);
    }
    return 1;
}

namespace {

using Bytes = std::vector<uint8_t>;
using arqrx::DecryptionLibrary;
using Result = DecryptionLibrary::Result;

constexpr char LIBRARY[] = SAMPLE_LIBRARY;
constexpr size_t TS_BYTES = 188;
constexpr uint8_t SYNC_BYTE = 0x47;
constexpr int32_t RECEIVE_MODE = 0;
constexpr int32_t SEND_MODE = 1;
constexpr int32_t CLEAR = 0;
constexpr int32_t DONE = 1;

// As the proxy has it from its start to its end.
const EncryptionPlugin& Plugin()
{
    static const EncryptionPlugin plugin = [] {
        EncryptionPlugin loaded;
        Require(loaded.Open(LIBRARY), "the proxy's loader takes the library");
        return loaded;
    }();
    return plugin;
}

void RefuseOthers(int32_t mode, const std::string& password)
{
    const auto length = static_cast<int32_t>(password.size());
    if (mode != RECEIVE_MODE && mode != SEND_MODE)
        Require(Plugin().openCallback(mode, password.data(), length) == nullptr, "no other mode");
    Require(Plugin().openCallback(SEND_MODE, nullptr, 0) == nullptr, "not without a password");
    Require(Plugin().openCallback(SEND_MODE, password.data(), -length) == nullptr, "nor with an empty one");
}

// Whole packets from `offset` on begin with a sync byte, all of them.
bool IsClear(const Bytes& bytes, size_t offset)
{
    for (; offset + TS_BYTES <= bytes.size(); offset += TS_BYTES) {
        if (bytes[offset] != SYNC_BYTE)
            return false;
    }
    return true;
}

class Sender {
public:
    explicit Sender(const std::string& password)
        : m_pSession(Plugin().openCallback(SEND_MODE, password.data(), static_cast<int32_t>(password.size())))
    {
        Require(m_pSession != nullptr, "a session for each password");
        Require(Call(nullptr, 1) == CLEAR, "nothing to do without data");
    }
    Sender(const Sender&) = delete;
    Sender& operator=(const Sender&) = delete;
    ~Sender() { Plugin().closeCallback(m_pSession); }

    // A datagram as it is sent. What the buffer had before stands behind it, as far as it was longer.
    Bytes Send(const Bytes& datagram)
    {
        std::copy(datagram.begin(), datagram.end(), m_slice.begin());
        const auto size = static_cast<int32_t>(datagram.size());
        const DataRegion region = CallbackRegion(size, m_nPrevious);
        m_nPrevious = size;
        if (region.length > 0)
            Transform(region);
        return { m_slice.begin(), m_slice.begin() + size };
    }

private:
    int32_t Call(uint8_t* data, int32_t length) const
    {
        return Plugin().dataCallback(m_pSession, data, length);
    }

    void Transform(const DataRegion& region)
    {
        const auto at = m_slice.begin() + region.offset;
        const Bytes before(at, at + region.length);
        Bytes after = before;
        const int32_t result = Call(after.data(), region.length);
        Require(result == (after == before ? CLEAR : DONE), "the answer says whether there is a change");
        Look(before, after);
        std::copy(after.begin(), after.end(), at);
    }

    // Packets in clear from the first on, and no others, no longer look like some.
    static void Look(const Bytes& before, const Bytes& after)
    {
        size_t offset = before.size() % TS_BYTES;
        if (offset != 0 && offset != RTP_HEADER_BYTES)
            offset = before.size();
        Require(std::equal(before.begin(), before.begin() + static_cast<ptrdiff_t>(offset), after.begin()),
            "a header stays as it is");
        for (; offset < before.size() && before[offset] == SYNC_BYTE; offset += TS_BYTES)
            Require(after[offset] != SYNC_BYTE, "no packet leaves in clear");
        Require(std::equal(before.begin() + static_cast<ptrdiff_t>(offset), before.end(),
                    after.begin() + static_cast<ptrdiff_t>(offset)),
            "what is no packet in clear stays as it is");
    }

    void* const m_pSession;
    Bytes m_slice = Bytes(PacketBufferPool::SLICE_BYTES);
    int32_t m_nPrevious = 0; // length of the datagram before
};

std::unique_ptr<DecryptionLibrary> OpenReceiver(const std::string& password)
{
    std::string problem;
    auto receiver = DecryptionLibrary::Open(LIBRARY, password, problem);
    Require((receiver == nullptr) == password.empty(), "a session for each password but an empty one");
    Require(
        receiver || problem.starts_with("the library gives no session without a password"), "which is told");
    Require(!receiver
            || receiver->Description()
                == "tx_proxy sample encryption " SAMPLE_VERSION ", AES-256-CTR, receiving",
        "who it is, and no more");
    return receiver;
}

// Where its first MPEG-TS packet begins; false for a datagram that arqrx takes for something else.
bool FindPackets(const Bytes& datagram, size_t& offset)
{
    offset = datagram.size() % TS_BYTES;
    return !datagram.empty() && (offset == 0 || offset == RTP_HEADER_BYTES);
}

void Receive(const DecryptionLibrary& receiver, const Bytes& sent)
{
    Bytes played = sent;
    const Result result = receiver.Decrypt(played);
    size_t offset = 0;
    if (!FindPackets(sent, offset) || IsClear(sent, offset))
        Require(result == Result::Clear, "what is in clear is nobody's matter");
    else
        Require(result != Result::Clear, "what is not in clear is told");
    Require(result != Result::Clear || played == sent, "and stays as it is");
    Require(result != Result::Decrypted || IsClear(played, offset), "what is decrypted is MPEG-TS");
}

// Two packets of a stream cannot be told apart from one that begins elsewhere when a region's length is wrong by 12.
bool IsAligned(const Bytes& datagram, int32_t previous)
{
    const DataRegion region = CallbackRegion(static_cast<int32_t>(datagram.size()), previous);
    if (region.length <= 0)
        return true;
    const size_t first = static_cast<size_t>(region.length) % TS_BYTES;
    if (first != 0 && first != RTP_HEADER_BYTES)
        return true;
    return (static_cast<size_t>(region.offset) + first) % TS_BYTES == datagram.size() % TS_BYTES;
}

void ReceiveWhole(const DecryptionLibrary& receiver, const Bytes& original, const Bytes& sent)
{
    Bytes played = sent;
    const Result result = receiver.Decrypt(played);
    Require(played == original, "what is encrypted decrypts to itself");
    Require(result == (sent == original ? Result::Clear : Result::Decrypted), "and the answer says so");
}

// Any bytes, or MPEG-TS packets of any content, alone or behind 12 bytes, as long as they are asked to be.
Bytes TakeDatagram(InputReader& input)
{
    const uint8_t shape = input.Byte();
    const size_t packets = shape & 7;
    const size_t header = (shape & 8) != 0 ? RTP_HEADER_BYTES : 0;
    const size_t size = (shape & 16) != 0 ? input.Word() % (PacketBufferPool::SLICE_BYTES + 1)
                                          : header + packets * TS_BYTES;
    const std::string_view content = input.Take(input.Length(PacketBufferPool::SLICE_BYTES));
    Bytes datagram(size, shape);
    std::copy_n(content.begin(), std::min(content.size(), size), datagram.begin());
    if ((shape & 32) != 0)
        return datagram;
    for (size_t offset = size % TS_BYTES; offset + TS_BYTES <= size; offset += TS_BYTES)
        datagram[offset] = SYNC_BYTE;
    return datagram;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    constexpr int MOST_STEPS = 24;
    constexpr size_t LONGEST_PASSWORD = 300;
    InputReader input(data, size);
    const auto mode = static_cast<int32_t>(input.Long());
    const std::string password(input.Take(input.Length(LONGEST_PASSWORD)));
    const std::string other(input.Take(input.Length(LONGEST_PASSWORD)));
    RefuseOthers(mode, password);
    const auto receiver = OpenReceiver(password);
    const auto stranger = OpenReceiver(other);
    if (!receiver)
        return 0;
    Sender sender(password);
    int32_t previous = 0;
    for (int i = 0; i < MOST_STEPS && !input.IsEmpty(); ++i) {
        const Bytes original = TakeDatagram(input);
        const Bytes sent = sender.Send(original);
        size_t offset = 0;
        if (FindPackets(original, offset) && IsClear(original, offset) && IsAligned(original, previous))
            ReceiveWhole(*receiver, original, sent);
        previous = static_cast<int32_t>(original.size());
        for (const DecryptionLibrary* each : { receiver.get(), stranger.get() }) {
            if (each != nullptr) {
                Receive(*each, original);
                Receive(*each, sent);
            }
        }
    }
    return 0;
}
