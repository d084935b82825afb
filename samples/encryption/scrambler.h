#pragma once

#include <openssl/evp.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

// Scrambles MPEG-TS packets one by one, without a byte more and without state between them, so that any of them may be
// lost, late, sent again or in clear.
//
// There is no place for a nonce, so the counter that AES-CTR starts from is made of the packet itself: three rounds
// of an unbalanced Feistel network, in which equal packets give equal results and any difference changes all. With A
// the bytes 1 to 16 and B the bytes 17 to 187 of a packet:
//
//     A ^= CMAC(first key, B)
//     S = AES-CTR(stream key, counter from CMAC(start key, A)), 16 bytes and as many as B
//     byte 0 = 0x47 ^ (1 + (first 4 bytes of S, big-endian) mod 255);  B ^= S without its first 16 bytes
//     A ^= CMAC(last key, B)
//
// Byte 0 of a scrambled packet is therefore never the 0x47 of one in clear, and 254 of 255 packets that were
// scrambled with another password, or changed on the way, are found out by it.
//
// Threads: one at a time.
class Scrambler {
public:
    static constexpr size_t PACKET_BYTES = 188;
    static constexpr uint8_t SYNC_BYTE = 0x47;
    using Packet = std::span<uint8_t, PACKET_BYTES>;

    // The keys come from the password by scrypt, which takes a tenth of a second and 32 MB. Null when memory or the
    // cipher cannot be had.
    static std::unique_ptr<Scrambler> Create(std::span<const char> password);

    static bool IsClear(Packet packet) { return packet[0] == SYNC_BYTE; }

    // A packet in clear. False when the cipher failed; the packet is not to be sent then.
    bool Scramble(Packet packet);
    // A packet not in clear. False when it is not of this password; its bytes mean nothing then.
    bool Unscramble(Packet packet);

private:
    static constexpr size_t BLOCK_BYTES = 16;
    static constexpr size_t HEAD_BYTES = BLOCK_BYTES; // A
    static constexpr size_t TAIL_BYTES = PACKET_BYTES - 1 - HEAD_BYTES; // B
    static constexpr size_t STREAM_BYTES = BLOCK_BYTES + TAIL_BYTES; // S

    template <auto Free>
    struct Deleter {
        template <typename T>
        void operator()(T* object) const
        {
            Free(object);
        }
    };
    using Mac = std::unique_ptr<EVP_MAC_CTX, Deleter<EVP_MAC_CTX_free>>;
    using Cipher = std::unique_ptr<EVP_CIPHER_CTX, Deleter<EVP_CIPHER_CTX_free>>;
    using Block = std::array<uint8_t, BLOCK_BYTES>;

    Scrambler() = default;
    bool SetKeys(std::span<const char> password);
    bool MixHead(EVP_MAC_CTX* mac, Packet packet);
    bool MakeStream(Packet packet);
    void MixTail(Packet packet) const;
    uint8_t Mark() const;

    Mac m_first;
    Mac m_start;
    Mac m_last;
    Cipher m_cipher;
    std::array<uint8_t, STREAM_BYTES> m_stream {}; // of the packet in hand
};
