#include "demo/png.h"

#include <array>
#include <string_view>

#include "demo/deflate.h"

namespace demo {

namespace {

void PutBe32(std::vector<uint8_t>& out, uint32_t value)
{
    for (int shift = 24; shift >= 0; shift -= 8)
        out.push_back(static_cast<uint8_t>(value >> shift));
}

// Length, name, data, and a sum over the last two.
void PutChunk(std::vector<uint8_t>& out, std::string_view name, std::span<const uint8_t> data)
{
    PutBe32(out, static_cast<uint32_t>(data.size()));
    const size_t start = out.size();
    out.insert(out.end(), name.begin(), name.end());
    out.insert(out.end(), data.begin(), data.end());
    PutBe32(out, Crc32(std::span(out).subspan(start)));
}

std::vector<uint8_t> Head(const Canvas& picture)
{
    std::vector<uint8_t> head;
    PutBe32(head, static_cast<uint32_t>(picture.Width()));
    PutBe32(head, static_cast<uint32_t>(picture.Height()));
    // Bits, red green blue, deflate, the filters of PNG, no interlace.
    head.insert(head.end(), { 8, 2, 0, 0, 0 });
    return head;
}

// In front of each row stands its filter; 0 means none.
std::vector<uint8_t> Rows(const Canvas& picture)
{
    const std::span<const uint8_t> bytes = picture.Bytes();
    const size_t rowBytes = static_cast<size_t>(picture.Width()) * 3;
    std::vector<uint8_t> rows;
    rows.reserve(bytes.size() + static_cast<size_t>(picture.Height()));
    for (size_t start = 0; start < bytes.size(); start += rowBytes) {
        rows.push_back(0);
        rows.insert(rows.end(), bytes.begin() + static_cast<ptrdiff_t>(start),
            bytes.begin() + static_cast<ptrdiff_t>(start + rowBytes));
    }
    return rows;
}

} // namespace

uint32_t Crc32(std::span<const uint8_t> bytes)
{
    uint32_t sum = ~0U;
    for (const uint8_t byte : bytes) {
        sum ^= byte;
        for (int bit = 0; bit < 8; ++bit)
            sum = (sum >> 1) ^ ((sum & 1U) != 0 ? 0xEDB88320U : 0U);
    }
    return ~sum;
}

std::vector<uint8_t> EncodePng(const Canvas& picture)
{
    std::vector<uint8_t> out { 0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n' };
    PutChunk(out, "IHDR", Head(picture));
    PutChunk(out, "IDAT", Compress(Rows(picture)));
    PutChunk(out, "IEND", {});
    return out;
}

} // namespace demo
