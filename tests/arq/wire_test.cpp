#include "arq/wire.h"

#include <gtest/gtest.h>

#include <cstring>
#include <initializer_list>

#include "support/test_packets.h"

using test_support::AppendHost16;
using test_support::Bytes;

namespace {

template <typename Record>
Bytes BytesOfRecord(const Record& record)
{
    const auto* bytes = reinterpret_cast<const uint8_t*>(&record);
    return Bytes(bytes, bytes + sizeof(record));
}

TEST(Wire, MediaHeaderIsBigEndianButForItsSsrc)
{
    MediaHeader header {};
    header.flags.Set(RTP_VERSION_FLAGS);
    header.payloadType.Set(MEDIA_PAYLOAD_TYPE);
    header.seq.Set(0x0102);
    header.timestamp.Set(0x03040506);
    header.ssrc.Set(0x11223344);
    Bytes expected { 0x80, 0x21, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06 };
    AppendHost16(expected, 0);
    AppendHost16(expected, 0);
    const uint32_t ssrc = 0x11223344;
    std::memcpy(&expected[8], &ssrc, sizeof(ssrc));
    EXPECT_EQ(BytesOfRecord(header), expected);
}

TEST(Wire, ArqRequestIsFiveWordsInHostOrder)
{
    ArqRequest request {};
    request.seqCount.Set(0x0102);
    request.checksum.Set(0x0304);
    request.arqRetries.Set(0x0506);
    request.arqIntervalMs.Set(0x0708);
    request.arqExtraMs.Set(0x090A);
    Bytes expected;
    for (const uint16_t word : std::initializer_list<uint16_t> { 0x0102, 0x0304, 0x0506, 0x0708, 0x090A })
        AppendHost16(expected, word);
    EXPECT_EQ(BytesOfRecord(request), expected);
}

TEST(Wire, ArqPingIsAZeroWordAndABigEndianId)
{
    ArqPing ping {};
    ping.id.Set(ARQ_PING_ID);
    EXPECT_EQ(BytesOfRecord(ping), (Bytes { 0x00, 0x00, 0xAD, 0xE2 }));
}

TEST(Wire, StreamTagIsTwoWordsInHostOrder)
{
    StreamTag tag {};
    tag.magic.Set(STREAM_TAG_MAGIC);
    tag.streamId.Set(0x01020304);
    EXPECT_EQ(BytesOfRecord(tag), test_support::Tag(0xBABEFACE, 0x01020304));
}

TEST(Wire, RecordsHaveTheirSizes)
{
    EXPECT_EQ(sizeof(MediaHeader), 12U);
    EXPECT_EQ(sizeof(StreamTag), 8U);
    EXPECT_EQ(sizeof(ArqPing), 4U);
    EXPECT_EQ(sizeof(ArqRequest), 10U);
}

TEST(Wire, ConstantsAreThoseThatReceiversKnow)
{
    EXPECT_EQ(RTP_VERSION_FLAGS, 0x80);
    EXPECT_EQ(MEDIA_PAYLOAD_TYPE, 33);
    EXPECT_EQ(RETRANSMIT_PAYLOAD_TYPE, 122);
    EXPECT_EQ(ARQ_PING_ID, 0xADE2);
    EXPECT_EQ(STREAM_TAG_MAGIC, 0xBABEFACEU);
    EXPECT_EQ(STREAM_LEAVE_MAGIC, 0xDEADBEEFU);
    EXPECT_EQ(
        Bytes(STOP_MESSAGE, STOP_MESSAGE + 8), (Bytes { 0xDE, 0xAD, 0xBE, 0xEF, 0xBA, 0xBE, 0xFA, 0xCE }));
    EXPECT_EQ(LONGEST_REQUEST_LIST_BYTES, 131070);
}

} // namespace
