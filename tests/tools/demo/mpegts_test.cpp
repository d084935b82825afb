#include "demo/mpegts.h"

#include <array>
#include <random>

#include <gtest/gtest.h>

#include "demo/mpegts_reader.h"

namespace {

std::vector<uint8_t> Data(size_t size, uint8_t seed)
{
    std::vector<uint8_t> data(size);
    for (size_t i = 0; i < size; ++i)
        data[i] = static_cast<uint8_t>(seed + i * 7);
    return data;
}

// A packet that says it has a payload has a byte of it at least.
bool CarriesSomething(const std::vector<uint8_t>& datagram, size_t at)
{
    const bool hasAdaptation = (datagram[at + 3] & 0x20) != 0;
    return !hasAdaptation || datagram[at + 4] < 183;
}

} // namespace

TEST(MpegTs, EverySizeThatFitsComesBackFromADatagramOfSevenPackets)
{
    for (size_t size = 1; size <= demo::PLAIN_DATA_BYTES; ++size) {
        demo::MpegTsWriter writer;
        demo::MpegTsReader reader;
        const std::vector<uint8_t> first = Data(std::min(size, demo::FIRST_DATA_BYTES), 1),
                                   second = Data(size, 2);
        const std::array datagrams { writer.FirstDatagram(first, 0), writer.Datagram(second, 3600) };
        for (const auto& datagram : datagrams) {
            ASSERT_EQ(datagram.size(), demo::TS_DATAGRAM_BYTES);
            for (size_t at = 0; at < datagram.size(); at += demo::TS_PACKET_BYTES)
                ASSERT_TRUE(datagram[at] == demo::TS_SYNC && CarriesSomething(datagram, at)) << size;
        }
        EXPECT_EQ(reader.OnPackets(datagrams[0]), (std::vector<std::vector<uint8_t>> { first }));
        EXPECT_EQ(reader.OnPackets(datagrams[1]), (std::vector<std::vector<uint8_t>> { second }));
        EXPECT_EQ(reader.ContinuityErrors(), 0U);
    }
}

TEST(MpegTs, TheTablesAreTheStandardsOwnBytes)
{
    demo::MpegTsWriter writer;
    const auto datagram = writer.FirstDatagram(Data(10, 0), 0);
    const std::vector<uint8_t> association { 0x47, 0x40, 0x00, 0x10, 0x00, 0x00, 0xB0, 0x0D, 0x00, 0x01, 0xC1,
        0x00, 0x00, 0x00, 0x01, 0xE1, 0x00 };
    EXPECT_EQ((std::vector<uint8_t>(datagram.begin(), datagram.begin() + 17)), association);
    EXPECT_EQ(demo::SectionSum(std::span(datagram).subspan(5, 16)), 0U); // with its own sum behind it
    EXPECT_EQ(demo::SectionSum(std::span(datagram).subspan(188 + 5, 21)), 0U);
    EXPECT_EQ(datagram[188 + 5], 0x02);
}

TEST(MpegTs, TheFirstPacketOfAPictureCarriesTheClockAndItsTime)
{
    constexpr uint64_t TICKS = 0x1'2345'6789;
    demo::MpegTsWriter writer;
    const auto datagram = writer.FirstDatagram(Data(800, 0), TICKS);
    const auto packet = std::span(datagram).subspan(2 * demo::TS_PACKET_BYTES, demo::TS_PACKET_BYTES);
    ASSERT_EQ(packet[5] & 0x10, 0x10);
    const uint64_t clock = static_cast<uint64_t>(packet[6]) << 25 | static_cast<uint64_t>(packet[7]) << 17
        | static_cast<uint64_t>(packet[8]) << 9 | static_cast<uint64_t>(packet[9]) << 1 | packet[10] >> 7;
    EXPECT_EQ(clock, TICKS);
    const auto pes = packet.subspan(5U + packet[4]);
    const uint64_t shown = static_cast<uint64_t>(pes[9] & 0x0E) << 29 | static_cast<uint64_t>(pes[10]) << 22
        | static_cast<uint64_t>(pes[11] & 0xFE) << 14 | static_cast<uint64_t>(pes[12]) << 7 | pes[13] >> 1;
    EXPECT_EQ(shown, TICKS);
}

TEST(MpegTs, ALostDatagramCostsItsOwnDataAndOneContinuityError)
{
    demo::MpegTsWriter writer;
    demo::MpegTsReader reader;
    EXPECT_EQ(reader.OnPackets(writer.FirstDatagram(Data(100, 0), 0)).size(), 1U);
    for (uint8_t i = 1; i < 20; ++i) {
        const auto datagram = writer.Datagram(Data(1200, i), 0);
        if (i % 5 == 2)
            continue;
        const auto whole = reader.OnPackets(datagram);
        ASSERT_EQ(whole.size(), 1U);
        EXPECT_EQ(whole[0], Data(1200, i));
    }
    EXPECT_EQ(reader.ContinuityErrors(), 4U);
}

TEST(MpegTs, DataWhoseMiddleIsMissingAreNotGivenOut)
{
    demo::MpegTsWriter writer;
    demo::MpegTsReader reader;
    (void)reader.OnPackets(writer.FirstDatagram(Data(100, 0), 0));
    auto datagram = writer.Datagram(Data(1200, 1), 0);
    datagram.erase(datagram.begin() + 3 * 188, datagram.begin() + 4 * 188);
    EXPECT_TRUE(reader.OnPackets(datagram).empty());
    EXPECT_EQ(reader.ContinuityErrors(), 1U);
}

TEST(MpegTs, TheEndsOfTwoPiecesAreNoWhole)
{
    demo::MpegTsWriter writer;
    demo::MpegTsReader reader;
    (void)reader.OnPackets(writer.FirstDatagram(Data(100, 0), 0));
    const auto one = writer.Datagram(Data(1270, 1), 0), other = writer.Datagram(Data(1270, 2), 0);
    std::vector<uint8_t> joined(one.begin(), one.begin() + 3 * 188);
    joined.insert(joined.end(), other.begin() + 3 * 188, other.end());
    EXPECT_TRUE(reader.OnPackets(joined).empty());
}

TEST(MpegTs, NothingComesOutBeforeTheTables)
{
    demo::MpegTsWriter writer;
    demo::MpegTsReader reader;
    EXPECT_TRUE(reader.OnPackets(writer.Datagram(Data(100, 0), 0)).empty());
    EXPECT_EQ(reader.OnPackets(writer.FirstDatagram(Data(100, 0), 0)).size(), 1U);
}

TEST(MpegTs, DamagedAndRandomPacketsDoNoHarm)
{
    std::mt19937 draw(3);
    demo::MpegTsWriter writer;
    demo::MpegTsReader reader;
    for (int round = 0; round < 3000; ++round) {
        auto datagram = writer.FirstDatagram(Data(500, 0), 0);
        for (int hit = 0; hit < 20; ++hit)
            datagram[draw() % datagram.size()] = static_cast<uint8_t>(draw());
        datagram.resize(draw() % (datagram.size() + 1));
        (void)reader.OnPackets(
            std::vector<uint8_t>(datagram)); // a copy of its own size, so that over-reads show
    }
}
