#include "scrambler.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/params.h>

#include <new>
#include <string_view>

namespace {

constexpr size_t KEY_BYTES = 32; // AES-256
constexpr size_t KEYS = 4;

// Both ends make the keys from the password alone, so the salt is the same for all.
constexpr std::string_view SALT = "tx_proxy sample encryption 1";
constexpr uint64_t SCRYPT_COST = 32768;
constexpr uint64_t SCRYPT_BLOCKS = 8;
constexpr uint64_t SCRYPT_LANES = 1;
constexpr uint64_t SCRYPT_MEMORY = uint64_t { 64 } << 20; // bound; it takes 32 MB and a little

constexpr uint32_t MARKS = 255;

using Key = std::span<const uint8_t, KEY_BYTES>;

// Takes its key with it when it goes.
struct KeyStore {
    KeyStore() = default;
    KeyStore(const KeyStore&) = delete;
    KeyStore& operator=(const KeyStore&) = delete;
    ~KeyStore() { OPENSSL_cleanse(bytes.data(), bytes.size()); }

    Key At(size_t index) const { return Key(bytes.data() + index * KEY_BYTES, KEY_BYTES); }

    std::array<uint8_t, KEYS * KEY_BYTES> bytes {};
};

bool DeriveKeys(std::span<const char> password, KeyStore& keys)
{
    std::array<unsigned char, SALT.size()> salt {};
    SALT.copy(reinterpret_cast<char*>(salt.data()), salt.size());
    return EVP_PBE_scrypt(password.data(), password.size(), salt.data(), salt.size(), SCRYPT_COST,
               SCRYPT_BLOCKS, SCRYPT_LANES, SCRYPT_MEMORY, keys.bytes.data(), keys.bytes.size())
        == 1;
}

EVP_MAC_CTX* NewMac(Key key)
{
    EVP_MAC* const algorithm = EVP_MAC_fetch(nullptr, "CMAC", nullptr);
    if (algorithm == nullptr)
        return nullptr;
    EVP_MAC_CTX* const mac = EVP_MAC_CTX_new(algorithm);
    EVP_MAC_free(algorithm); // the context keeps it
    char cipherName[] = "AES-256-CBC";
    const OSSL_PARAM settings[] { OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_CIPHER, cipherName, 0),
        OSSL_PARAM_construct_end() };
    if (mac != nullptr && EVP_MAC_init(mac, key.data(), key.size(), settings) == 1)
        return mac;
    EVP_MAC_CTX_free(mac);
    return nullptr;
}

EVP_CIPHER_CTX* NewCipher(Key key)
{
    EVP_CIPHER_CTX* const cipher = EVP_CIPHER_CTX_new();
    if (cipher != nullptr
        && EVP_EncryptInit_ex2(cipher, EVP_aes_256_ctr(), key.data(), nullptr, nullptr) == 1)
        return cipher;
    EVP_CIPHER_CTX_free(cipher);
    return nullptr;
}

// A code of 16 bytes, with the key that the context has.
bool Code(EVP_MAC_CTX* mac, std::span<const uint8_t> text, std::span<uint8_t> code)
{
    size_t length = 0;
    return EVP_MAC_init(mac, nullptr, 0, nullptr) == 1 && EVP_MAC_update(mac, text.data(), text.size()) == 1
        && EVP_MAC_final(mac, code.data(), &length, code.size()) == 1 && length == code.size();
}

} // namespace

std::unique_ptr<Scrambler> Scrambler::Create(std::span<const char> password)
{
    std::unique_ptr<Scrambler> scrambler(new (std::nothrow) Scrambler);
    if (!scrambler || !scrambler->SetKeys(password))
        return nullptr;
    return scrambler;
}

bool Scrambler::SetKeys(std::span<const char> password)
{
    KeyStore keys;
    if (!DeriveKeys(password, keys))
        return false;
    m_first.reset(NewMac(keys.At(0)));
    m_start.reset(NewMac(keys.At(1)));
    m_cipher.reset(NewCipher(keys.At(2)));
    m_last.reset(NewMac(keys.At(3)));
    return m_first && m_start && m_cipher && m_last;
}

bool Scrambler::Scramble(Packet packet)
{
    if (!MixHead(m_first.get(), packet) || !MakeStream(packet))
        return false;
    packet[0] = SYNC_BYTE ^ Mark();
    MixTail(packet);
    return MixHead(m_last.get(), packet);
}

bool Scrambler::Unscramble(Packet packet)
{
    if (!MixHead(m_last.get(), packet) || !MakeStream(packet) || packet[0] != (SYNC_BYTE ^ Mark()))
        return false;
    packet[0] = SYNC_BYTE;
    MixTail(packet);
    return MixHead(m_first.get(), packet);
}

// A ^= CMAC(B)
bool Scrambler::MixHead(EVP_MAC_CTX* mac, Packet packet)
{
    Block code;
    if (!Code(mac, packet.last<TAIL_BYTES>(), code))
        return false;
    for (size_t i = 0; i < HEAD_BYTES; ++i)
        packet[1 + i] ^= code[i];
    return true;
}

// The counter does not start from A itself: packets that differ in A alone would share most of their streams.
bool Scrambler::MakeStream(Packet packet)
{
    Block start;
    if (!Code(m_start.get(), packet.subspan<1, HEAD_BYTES>(), start))
        return false;
    m_stream.fill(0);
    int length = 0;
    return EVP_EncryptInit_ex2(m_cipher.get(), nullptr, nullptr, start.data(), nullptr) == 1
        && EVP_EncryptUpdate(
               m_cipher.get(), m_stream.data(), &length, m_stream.data(), static_cast<int>(m_stream.size()))
        == 1;
}

void Scrambler::MixTail(Packet packet) const
{
    for (size_t i = 0; i < TAIL_BYTES; ++i)
        packet[1 + HEAD_BYTES + i] ^= m_stream[BLOCK_BYTES + i];
}

// 1 to 255: with it a sync byte is none any more.
uint8_t Scrambler::Mark() const
{
    uint32_t number = 0;
    for (size_t i = 0; i < sizeof(number); ++i)
        number = number << 8 | m_stream[i];
    return static_cast<uint8_t>(1 + number % MARKS);
}
