#include "demo/png.h"

#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "tools/demo/inflate.h"

namespace {

uint32_t Be32(std::span<const uint8_t> bytes)
{
    return static_cast<uint32_t>(bytes[0]) << 24 | static_cast<uint32_t>(bytes[1]) << 16
        | static_cast<uint32_t>(bytes[2]) << 8 | bytes[3];
}

struct Chunk {
    std::string name;
    std::vector<uint8_t> data;
};

// All chunks; each sum is checked.
std::vector<Chunk> Chunks(std::span<const uint8_t> file)
{
    std::vector<Chunk> chunks;
    for (file = file.subspan(8); !file.empty();) {
        const uint32_t length = Be32(file);
        const auto named = file.subspan(4, 4 + length);
        EXPECT_EQ(Be32(file.subspan(8 + length)), demo::Crc32(named));
        chunks.push_back({ { named.begin(), named.begin() + 4 }, { named.begin() + 4, named.end() } });
        file = file.subspan(12 + length);
    }
    return chunks;
}

} // namespace

TEST(Png, TheSumOfTheEndChunkIsTheWellKnownOne)
{
    constexpr std::string_view END = "IEND";
    EXPECT_EQ(demo::Crc32(std::vector<uint8_t>(END.begin(), END.end())), 0xAE426082U);
}

TEST(Png, AFileHasItsSignatureAndThreeChunksWithTheSizeAndEveryPoint)
{
    demo::Canvas picture(3, 2, { 1, 2, 3 });
    picture.Point(2, 1, { 250, 251, 252 });
    const std::vector<uint8_t> file = demo::EncodePng(picture);
    ASSERT_GE(file.size(), 8U);
    EXPECT_EQ((std::vector<uint8_t>(file.begin(), file.begin() + 8)),
        (std::vector<uint8_t> { 0x89, 0x50, 0x4E, 0x47, 0x0D, 0x0A, 0x1A, 0x0A }));
    const std::vector<Chunk> chunks = Chunks(file);
    ASSERT_EQ(chunks.size(), 3U);
    EXPECT_EQ(chunks[0].name, "IHDR");
    EXPECT_EQ(chunks[0].data, (std::vector<uint8_t> { 0, 0, 0, 3, 0, 0, 0, 2, 8, 2, 0, 0, 0 }));
    EXPECT_EQ(chunks[1].name, "IDAT");
    const auto rows = Inflate(chunks[1].data);
    ASSERT_TRUE(rows);
    EXPECT_EQ(
        *rows, (std::vector<uint8_t> { 0, 1, 2, 3, 1, 2, 3, 1, 2, 3, 0, 1, 2, 3, 1, 2, 3, 250, 251, 252 }));
    EXPECT_EQ(chunks[2].name, "IEND");
    EXPECT_TRUE(chunks[2].data.empty());
}
