#include "demo/deflate.h"

#include <algorithm>
#include <array>
#include <bit>
#include <utility>

namespace demo {

namespace {

constexpr size_t SHORTEST_MATCH = 3;
constexpr size_t LONGEST_MATCH = 258;
constexpr size_t FARTHEST_MATCH = 32768;
constexpr uint32_t END_OF_BLOCK = 256;

// Bits fill each byte from its lowest one on.
class BitWriter {
public:
    explicit BitWriter(std::vector<uint8_t>& out) : m_out(out) {}

    // The lowest `count` bits of `value`, its lowest one first.
    void Put(uint32_t value, int count)
    {
        m_ulBits |= static_cast<uint64_t>(value) << m_nBits;
        for (m_nBits += count; m_nBits >= 8; m_nBits -= 8) {
            m_out.push_back(static_cast<uint8_t>(m_ulBits));
            m_ulBits >>= 8;
        }
    }

    // Huffman codes come with their highest bit first.
    void PutCode(uint32_t code, int count)
    {
        for (int bit = count - 1; bit >= 0; --bit)
            Put((code >> bit) & 1U, 1);
    }

    void Finish()
    {
        if (m_nBits > 0)
            Put(0, 8 - m_nBits);
    }

private:
    std::vector<uint8_t>& m_out;
    uint64_t m_ulBits = 0;
    int m_nBits = 0;
};

// The fixed code of a literal or length.
void PutSymbol(BitWriter& bits, uint32_t symbol)
{
    if (symbol < 144)
        bits.PutCode(0x30 + symbol, 8);
    else if (symbol < 256)
        bits.PutCode(0x190 + symbol - 144, 9);
    else if (symbol < 280)
        bits.PutCode(symbol - 256, 7);
    else
        bits.PutCode(0xC0 + symbol - 280, 8);
}

// Lengths and distances share a scheme: classes that double, each cut into `1 << cut` symbols, further bits behind.
struct Bucket {
    uint32_t symbol; // from the first one of its kind
    uint32_t rest;
    int restBits;
};

Bucket BucketOf(uint32_t value, int cut)
{
    const int bits = std::max(0, static_cast<int>(std::bit_width(value)) - 1 - cut);
    return { (static_cast<uint32_t>(bits) << cut) + (value >> bits), value & ((1U << bits) - 1U), bits };
}

void PutMatch(BitWriter& bits, size_t length, size_t distance)
{
    if (length == LONGEST_MATCH) {
        PutSymbol(bits, 285); // has a symbol of its own
    } else {
        const Bucket bucket = BucketOf(static_cast<uint32_t>(length - SHORTEST_MATCH), 2);
        PutSymbol(bits, 257 + bucket.symbol);
        bits.Put(bucket.rest, bucket.restBits);
    }
    const Bucket bucket = BucketOf(static_cast<uint32_t>(distance - 1), 1);
    bits.PutCode(bucket.symbol, 5);
    bits.Put(bucket.rest, bucket.restBits);
}

size_t MatchLength(std::span<const uint8_t> bytes, size_t earlier, size_t here)
{
    const size_t most = std::min(LONGEST_MATCH, bytes.size() - here);
    size_t length = 0;
    while (length < most && bytes[earlier + length] == bytes[here + length])
        ++length;
    return length;
}

// Where three bytes stood last.
class LastPlaces {
public:
    static constexpr size_t NOWHERE = SIZE_MAX;

    LastPlaces() : m_places(PLACES, NOWHERE) {}

    // Tells the last place of what looks like these three bytes, and remembers this one.
    size_t Exchange(std::span<const uint8_t> bytes, size_t here)
    {
        const uint32_t three = bytes[here] | static_cast<uint32_t>(bytes[here + 1]) << 8
            | static_cast<uint32_t>(bytes[here + 2]) << 16;
        size_t& place = m_places[(three * 2654435761U) >> (32 - PLACE_BITS)];
        return std::exchange(place, here);
    }

private:
    static constexpr int PLACE_BITS = 15;
    static constexpr size_t PLACES = size_t { 1 } << PLACE_BITS;
    std::vector<size_t> m_places;
};

void PutBlock(BitWriter& bits, std::span<const uint8_t> bytes)
{
    LastPlaces places;
    for (size_t here = 0; here < bytes.size();) {
        size_t length = 0, earlier = LastPlaces::NOWHERE;
        if (here + SHORTEST_MATCH <= bytes.size())
            earlier = places.Exchange(bytes, here);
        if (earlier != LastPlaces::NOWHERE && here - earlier <= FARTHEST_MATCH)
            length = MatchLength(bytes, earlier, here);
        if (length >= SHORTEST_MATCH) {
            PutMatch(bits, length, here - earlier);
            here += length;
        } else {
            PutSymbol(bits, bytes[here++]);
        }
    }
    PutSymbol(bits, END_OF_BLOCK);
}

} // namespace

uint32_t Adler32(std::span<const uint8_t> bytes)
{
    constexpr uint32_t MODULUS = 65521;
    uint32_t low = 1, high = 0;
    for (const uint8_t byte : bytes) {
        low = (low + byte) % MODULUS;
        high = (high + low) % MODULUS;
    }
    return high << 16 | low;
}

std::vector<uint8_t> Compress(std::span<const uint8_t> bytes)
{
    std::vector<uint8_t> out { 0x78, 0x01 }; // deflate, window of 32 KiB; the two bytes are a multiple of 31
    BitWriter bits(out);
    bits.Put(1, 1); // the last block
    bits.Put(1, 2); // fixed codes
    PutBlock(bits, bytes);
    bits.Finish();
    const uint32_t sum = Adler32(bytes);
    for (int shift = 24; shift >= 0; shift -= 8)
        out.push_back(static_cast<uint8_t>(sum >> shift));
    return out;
}

} // namespace demo
