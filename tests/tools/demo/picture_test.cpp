#include "demo/picture_decoder.h"

#include <algorithm>
#include <functional>
#include <iterator>
#include <random>

#include <gtest/gtest.h>

#include "demo/test_stream.h"

namespace {

constexpr size_t RTP_BYTES = 12;

std::span<const uint8_t> PayloadOf(const std::vector<uint8_t>& datagram)
{
    return std::span(datagram).subspan(RTP_BYTES);
}

// The picture as the stream's colours can show it.
demo::Canvas Expected(uint32_t number)
{
    demo::Canvas picture = demo::DrawTestPicture(number);
    for (int block = 0; block < demo::BLOCKS; ++block)
        demo::UnpackBlock(picture, block, demo::PackBlock(picture, block));
    return picture;
}

bool Same(const demo::Canvas& one, const demo::Canvas& other)
{
    return std::ranges::equal(one.Bytes(), other.Bytes());
}

// The blocks of the slice in datagram `index` of a picture that are as they were drawn.
int DrawnBlocks(const demo::ShownPicture& shown)
{
    const demo::Canvas expected = Expected(static_cast<uint32_t>(shown.number));
    int drawn = 0;
    for (int block = 0; block < demo::BLOCKS; ++block)
        drawn += demo::PackBlock(shown.picture, block) == demo::PackBlock(expected, block) ? 1 : 0;
    return drawn;
}

// What is shown of the first pictures when the datagrams for which `isLost` holds do not come.
std::vector<demo::ShownPicture> Show(int pictures, const std::function<bool(uint64_t)>& isLost)
{
    demo::TestStream stream(65530);
    demo::PictureDecoder decoder;
    std::vector<demo::ShownPicture> shown;
    const auto take = [&shown](std::vector<demo::ShownPicture> more) {
        std::ranges::move(more, std::back_inserter(shown));
    };
    while (stream.Made() < static_cast<uint64_t>(pictures) * demo::TestStream::DATAGRAMS_PER_PICTURE) {
        const uint64_t index = stream.Made();
        const auto datagram = stream.Next();
        if (!isLost(index))
            take(decoder.OnPayload(PayloadOf(datagram)));
    }
    take(decoder.Finish());
    return shown;
}

} // namespace

TEST(TestStream, IsAnEvenThreeMegabitsASecondOfRtpWithNumbersThatWrap)
{
    demo::TestStream stream(65535);
    const auto first = stream.Next(), second = stream.Next();
    EXPECT_EQ(first.size(), RTP_BYTES + demo::TS_DATAGRAM_BYTES);
    EXPECT_EQ((std::vector<uint8_t>(first.begin(), first.begin() + 4)),
        (std::vector<uint8_t> { 0x80, 33, 255, 255 }));
    EXPECT_EQ((std::vector<uint8_t>(second.begin(), second.begin() + 4)),
        (std::vector<uint8_t> { 0x80, 33, 0, 0 }));
    EXPECT_EQ(demo::TestStream::TimeOf(300), 1'000'000);
    EXPECT_EQ(demo::TestStream::TimeOf(1), 3'333);
}

TEST(PictureDecoder, EveryPictureComesBackAsItWasDrawn)
{
    const auto shown = Show(30, [](uint64_t) { return false; });
    ASSERT_EQ(shown.size(), 30U);
    for (size_t i = 0; i < shown.size(); ++i) {
        EXPECT_EQ(shown[i].number, i);
        EXPECT_EQ(shown[i].holes, 0);
        EXPECT_TRUE(Same(shown[i].picture, Expected(static_cast<uint32_t>(i)))) << i;
    }
}

TEST(PictureDecoder, ALostDatagramIsAHoleOfItsBlocksInOnePictureAndNothingElse)
{
    for (uint64_t lost = 12; lost < 24; ++lost) {
        const auto shown = Show(3, [lost](uint64_t index) { return index == lost; });
        ASSERT_EQ(shown.size(), 3U);
        EXPECT_EQ(shown[0].holes, 0);
        EXPECT_EQ(shown[1].holes, lost == 12 ? 4 : lost == 23 ? 6 : 7) << lost;
        EXPECT_EQ(DrawnBlocks(shown[1]), demo::BLOCKS - shown[1].holes) << lost;
        EXPECT_EQ(shown[2].holes, 0);
    }
}

TEST(PictureDecoder, PicturesOfWhichNothingCameAreShownAsOneHole)
{
    const auto shown = Show(5, [](uint64_t index) { return index >= 12 && index < 36; });
    ASSERT_EQ(shown.size(), 5U);
    EXPECT_EQ(shown[1].holes, demo::BLOCKS);
    EXPECT_EQ(shown[2].number, 2U);
    EXPECT_EQ(shown[2].holes, demo::BLOCKS);
    EXPECT_EQ(DrawnBlocks(shown[2]), 0);
    EXPECT_EQ(shown[3].holes, 0);
}

TEST(PictureDecoder, AJumpFarAheadShowsNoThousandsOfHoles)
{
    const auto slice
        = [](uint32_t number) { return demo::WriteSlice(demo::DrawTestPicture(0), number, 0, 1); };
    demo::MpegTsWriter writer;
    demo::PictureDecoder decoder;
    EXPECT_TRUE(decoder.OnPayload(writer.FirstDatagram(slice(1), 0)).empty());
    EXPECT_EQ(decoder.OnPayload(writer.Datagram(slice(4'000'000'000), 0)).size(), 1U);
    EXPECT_EQ(decoder.Finish().at(0).number, 4'000'000'000U);
}

TEST(Slice, WhatIsCutLongerOrDamagedIsNoSlice)
{
    const auto bytes = demo::WriteSlice(demo::DrawTestPicture(5), 5, 78, 2);
    const auto slice = demo::ReadSlice(bytes);
    ASSERT_TRUE(slice);
    EXPECT_EQ(slice->picture, 5U);
    EXPECT_EQ(slice->firstBlock, 78);
    for (size_t size = 0; size < bytes.size(); ++size)
        EXPECT_FALSE(demo::ReadSlice(
            std::vector<uint8_t>(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(size))));
    auto beyond = bytes;
    beyond[8] = 79; // blocks 79 and 80: there is no 80
    EXPECT_FALSE(demo::ReadSlice(beyond));
    auto damaged = bytes;
    damaged[100] ^= 0x04;
    EXPECT_FALSE(demo::ReadSlice(damaged));
}
