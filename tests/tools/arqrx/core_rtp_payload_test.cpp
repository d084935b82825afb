#include "arqrx/core/rtp_payload.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

namespace arqrx {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::vector<uint8_t> Datagram(uint8_t flags, std::initializer_list<uint8_t> rest)
{
    std::vector<uint8_t> datagram(12, 0);
    datagram[0] = flags;
    for (const uint8_t byte : rest)
        datagram.push_back(byte);
    return datagram;
}

TEST(ArqrxRtpPayload, StandsBehindTwelveBytes)
{
    EXPECT_THAT(RtpPayload(Datagram(0x80, { 1, 2, 3 })), ElementsAre(1, 2, 3));
    EXPECT_THAT(RtpPayload(Datagram(0x80, {})), IsEmpty());
    EXPECT_THAT(RtpPayload(std::vector<uint8_t>(11, 0x80)), IsEmpty());
}

TEST(ArqrxRtpPayload, StandsBehindContributingSources)
{
    EXPECT_THAT(RtpPayload(Datagram(0x81, { 9, 9, 9, 9, 1 })), ElementsAre(1));
    EXPECT_THAT(RtpPayload(Datagram(0x8F, { 9, 9, 9, 9, 1 })), IsEmpty());
}

TEST(ArqrxRtpPayload, StandsBehindAnExtension)
{
    EXPECT_THAT(RtpPayload(Datagram(0x90, { 0, 0, 0, 1, 9, 9, 9, 9, 1 })), ElementsAre(1));
    EXPECT_THAT(RtpPayload(Datagram(0x90, { 0, 0, 1, 0, 9, 9, 9, 9, 1 })), IsEmpty());
    EXPECT_THAT(RtpPayload(Datagram(0x90, { 0, 0, 0 })), IsEmpty());
}

TEST(ArqrxRtpPayload, EndsBeforeItsPadding)
{
    EXPECT_THAT(RtpPayload(Datagram(0xA0, { 1, 2, 0, 2 })), ElementsAre(1, 2));
    EXPECT_THAT(RtpPayload(Datagram(0xA0, { 1, 2, 0, 4 })), IsEmpty());
    EXPECT_THAT(RtpPayload(Datagram(0xA0, { 1, 2, 0, 5 })), IsEmpty());
}

} // namespace
} // namespace arqrx
