// The four functions of the sample: which bytes of a region are MPEG-TS packets, and what each call answers.
#include <algorithm>
#include <memory>
#include <new>
#include <utility>

#include "scrambler.h"
#include "sorvanex.h"

namespace {

constexpr size_t RTP_HEADER_BYTES = 12;

struct Session {
    int32_t mode;
    std::unique_ptr<Scrambler> scrambler;
};

void* Refuse(const char* why)
{
    fprintf(stderr, "sample encryption library: %s; no session\n", why);
    return nullptr;
}

Scrambler::Packet PacketAt(std::span<uint8_t> region, size_t offset)
{
    return region.subspan(offset).first<Scrambler::PACKET_BYTES>();
}

// Where the first whole packet begins, by the length alone: a region of packets only is a datagram of the proxy's
// -u, and one with 12 bytes more begins with the last 12 of the packet behind an RTP header. Nothing else is looked
// into, because a wrong guess would scramble what no receiver finds again.
bool FindFirstPacket(std::span<uint8_t> region, size_t& offset)
{
    offset = region.size() % Scrambler::PACKET_BYTES;
    return offset == 0 || offset == RTP_HEADER_BYTES;
}

// Up to the first that is no packet in clear: behind the end of a datagram lie scrambled ones from before.
int32_t ScrambleAll(Scrambler& scrambler, std::span<uint8_t> region)
{
    int32_t result = SORVANEX_CLEAR;
    size_t offset = 0;
    if (!FindFirstPacket(region, offset))
        return result;
    for (; offset + Scrambler::PACKET_BYTES <= region.size(); offset += Scrambler::PACKET_BYTES) {
        const Scrambler::Packet packet = PacketAt(region, offset);
        if (!Scrambler::IsClear(packet))
            break;
        if (!scrambler.Scramble(packet))
            std::fill(packet.begin(), packet.end(), uint8_t { 0 }); // rather no packet than one in clear
        result = SORVANEX_DONE;
    }
    return result;
}

int32_t UnscrambleAll(Scrambler& scrambler, std::span<uint8_t> region)
{
    int32_t result = SORVANEX_CLEAR;
    for (size_t offset = 0; offset + Scrambler::PACKET_BYTES <= region.size();
         offset += Scrambler::PACKET_BYTES) {
        const Scrambler::Packet packet = PacketAt(region, offset);
        if (Scrambler::IsClear(packet))
            continue;
        if (!scrambler.Unscramble(packet))
            return SORVANEX_UNDECIDED;
        result = SORVANEX_DONE;
    }
    return result;
}

} // namespace

void* sorvanex_open_callback(int32_t mode, const char* password, int32_t length)
{
    if (mode != SORVANEX_SEND && mode != SORVANEX_RECEIVE)
        return Refuse("it knows the modes 0 and 1 only");
    if (password == nullptr || length <= 0)
        return Refuse("it needs a password: -Z PASSWORD of the proxy, --password-file FILE of arqrx");
    auto scrambler = Scrambler::Create({ password, static_cast<size_t>(length) });
    if (!scrambler)
        return Refuse("memory is short, or libcrypto has no AES");
    return new (std::nothrow) Session { mode, std::move(scrambler) };
}

int32_t sorvanex_data_callback(void* session, uint8_t* data, int32_t length)
{
    if (session == nullptr || data == nullptr || length <= 0)
        return SORVANEX_CLEAR;
    const Session& open = *static_cast<Session*>(session);
    const std::span<uint8_t> region(data, static_cast<size_t>(length));
    return open.mode == SORVANEX_SEND ? ScrambleAll(*open.scrambler, region)
                                      : UnscrambleAll(*open.scrambler, region);
}

void sorvanex_close_callback(void* session)
{
    delete static_cast<Session*>(session);
}

void sorvanex_print_info(void* session, int32_t, FILE* stream)
{
    const bool isSending = session == nullptr || static_cast<Session*>(session)->mode == SORVANEX_SEND;
    fprintf(stream, "tx_proxy sample encryption " SAMPLE_VERSION ", AES-256-CTR, %s",
        isSending ? "sending" : "receiving");
}
