#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace inflating {

struct Bits {
    std::span<const uint8_t> bytes;
    size_t at = 0;

    bool IsOver() const { return at > bytes.size() * 8; }
    uint32_t One()
    {
        const size_t here = at++;
        return here / 8 < bytes.size() ? bytes[here / 8] >> here % 8 & 1U : 0;
    }
    uint32_t Number(int count)
    {
        uint32_t value = 0;
        for (int bit = 0; bit < count; ++bit)
            value |= One() << bit;
        return value;
    }
    uint32_t Code(int count)
    {
        uint32_t value = 0;
        for (int bit = 0; bit < count; ++bit)
            value = value << 1 | One();
        return value;
    }
};

// Ranges of RFC 1951, 3.2.6, shortest codes first.
inline uint32_t Symbol(Bits& bits)
{
    uint32_t code = bits.Code(7);
    if (code <= 0x17)
        return 256 + code;
    code = code << 1 | bits.One();
    if (code >= 0x30 && code <= 0xBF)
        return code - 0x30;
    if (code >= 0xC0 && code <= 0xC7)
        return 280 + code - 0xC0;
    return 144 + (code << 1 | bits.One()) - 0x190;
}

inline constexpr std::array<uint16_t, 29> LENGTHS { 3, 4, 5, 6, 7, 8, 9, 10, 11, 13, 15, 17, 19, 23, 27, 31,
    35, 43, 51, 59, 67, 83, 99, 115, 131, 163, 195, 227, 258 };
inline constexpr std::array<uint8_t, 29> LENGTH_BITS { 0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 2, 2, 2, 2, 3, 3,
    3, 3, 4, 4, 4, 4, 5, 5, 5, 5, 0 };
inline constexpr std::array<uint16_t, 30> DISTANCES { 1, 2, 3, 4, 5, 7, 9, 13, 17, 25, 33, 49, 65, 97, 129,
    193, 257, 385, 513, 769, 1025, 1537, 2049, 3073, 4097, 6145, 8193, 12289, 16385, 24577 };
inline constexpr std::array<uint8_t, 30> DISTANCE_BITS { 0, 0, 0, 0, 1, 1, 2, 2, 3, 3, 4, 4, 5, 5, 6, 6, 7, 7,
    8, 8, 9, 9, 10, 10, 11, 11, 12, 12, 13, 13 };

inline bool CopyMatch(Bits& bits, uint32_t symbol, std::vector<uint8_t>& out)
{
    if (symbol - 257 >= LENGTHS.size())
        return false;
    const size_t length = LENGTHS[symbol - 257] + bits.Number(LENGTH_BITS[symbol - 257]);
    const uint32_t code = bits.Code(5);
    if (code >= DISTANCES.size())
        return false;
    const size_t distance = DISTANCES[code] + bits.Number(DISTANCE_BITS[code]);
    if (distance > out.size())
        return false;
    for (size_t byte = 0; byte < length; ++byte)
        out.push_back(out[out.size() - distance]);
    return true;
}

inline uint32_t Sum(std::span<const uint8_t> bytes)
{
    uint64_t low = 1, high = 0;
    for (const uint8_t byte : bytes) {
        low = (low + byte) % 65521;
        high = (high + low) % 65521;
    }
    return static_cast<uint32_t>(high << 16 | low);
}

} // namespace inflating

// The other way round: zlib data of one block with the fixed codes, read bit by bit after RFC 1951. Nothing if it is not
// that, or its sum is wrong.
inline std::optional<std::vector<uint8_t>> Inflate(std::span<const uint8_t> zlib)
{
    if (zlib.size() < 6 || (zlib[0] & 0x0F) != 8 || (zlib[0] << 8 | zlib[1]) % 31 != 0)
        return std::nullopt;
    inflating::Bits bits { zlib.subspan(2, zlib.size() - 6) };
    if (bits.Number(1) != 1 || bits.Number(2) != 1)
        return std::nullopt;
    std::vector<uint8_t> out;
    for (uint32_t symbol = inflating::Symbol(bits); symbol != 256; symbol = inflating::Symbol(bits)) {
        if (bits.IsOver())
            return std::nullopt;
        if (symbol < 256)
            out.push_back(static_cast<uint8_t>(symbol));
        else if (!inflating::CopyMatch(bits, symbol, out))
            return std::nullopt;
    }
    const auto sum = zlib.last(4);
    const uint32_t said = static_cast<uint32_t>(sum[0]) << 24 | static_cast<uint32_t>(sum[1]) << 16
        | static_cast<uint32_t>(sum[2]) << 8 | sum[3];
    if (said != inflating::Sum(out) || (bits.at + 7) / 8 != bits.bytes.size())
        return std::nullopt;
    return out;
}
