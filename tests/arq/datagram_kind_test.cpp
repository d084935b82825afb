#include "arq/datagram_kind.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>

#include "support/test_packets.h"

using test_support::Bytes;
using test_support::Concat;
using test_support::Tag;

namespace {

// The first `length` bytes count; the rest stands behind the datagram in its buffer.
RequestKind KindOf(Bytes bytes, int32_t length)
{
    bytes.resize(std::max<size_t>(bytes.size(), 16));
    return ClassifyRequest(bytes.data(), length);
}

RequestKind KindOf(const Bytes& bytes)
{
    return KindOf(bytes, static_cast<int32_t>(bytes.size()));
}

StreamTagInfo TagOf(const Bytes& bytes)
{
    return ReadStreamTag(bytes.data(), static_cast<int32_t>(bytes.size()));
}

struct TagCase {
    uint32_t magic;
    bool isLeave;
};
const TagCase ALL_FORMS[]
    = { { 0xBABEFACE, false }, { 0xCEFABEBA, false }, { 0xDEADBEEF, true }, { 0xEFBEADDE, true } };

TEST(ReadStreamTag, RecognisesEachMagicInEitherByteOrder)
{
    for (const TagCase& c : ALL_FORMS) {
        const StreamTagInfo info = TagOf(Tag(c.magic, 0x01020304));
        EXPECT_EQ(info.streamId, 0x01020304U) << std::hex << c.magic; // never swapped
        EXPECT_EQ(info.isLeave, c.isLeave) << std::hex << c.magic;
    }
}

TEST(ReadStreamTag, ATagNeedsEightBytesAndALeaveFour)
{
    for (const TagCase& c : ALL_FORMS) {
        const Bytes whole = Concat({ Tag(c.magic, 0x01020304), { 9, 9 } });
        for (int32_t length = 0; length <= 10; ++length) {
            const StreamTagInfo info = ReadStreamTag(whole.data(), length);
            EXPECT_EQ(info.streamId, length >= 8 ? 0x01020304U : 0U) << length;
            EXPECT_EQ(info.isLeave, c.isLeave && length >= 4) << length;
        }
    }
}

TEST(ReadStreamTag, OtherFirstWordsAreNoTag)
{
    for (const uint32_t magic : { 0U, 0xBABEFACFU, 0xBABEFA00U, 0xFACEBABEU, 0xBEEFDEADU, 0xFFFFFFFFU }) {
        const StreamTagInfo info = TagOf(Tag(magic, 0x01020304));
        EXPECT_EQ(info.streamId, 0U) << std::hex << magic;
        EXPECT_FALSE(info.isLeave) << std::hex << magic;
    }
}

TEST(ReadStreamTag, AStreamIdOfZeroIsLikeNoTag)
{
    EXPECT_EQ(TagOf(Tag(STREAM_TAG_MAGIC, 0)).streamId, 0U);
}

TEST(ClassifyRequest, TenBytesAreARequestAndNineAreNot)
{
    EXPECT_EQ(KindOf(Bytes(9, 1)), RequestKind::Other);
    EXPECT_EQ(KindOf(Bytes(10, 1)), RequestKind::Request);
    EXPECT_EQ(KindOf(Bytes(1536, 1)), RequestKind::Request);
}

TEST(ClassifyRequest, TenBytesThatBeginLikeAPingAreARequest)
{
    Bytes bytes { 0x00, 0x00, 0xAD, 0xE2, 1, 2, 3, 4, 5 };
    EXPECT_EQ(KindOf(bytes), RequestKind::Ping);
    bytes.push_back(6);
    EXPECT_EQ(KindOf(bytes), RequestKind::Request);
}

TEST(ClassifyRequest, APingHasFourToNineBytes)
{
    const Bytes ping { 0x00, 0x00, 0xAD, 0xE2, 1, 2, 3, 4, 5 };
    for (int32_t length = 4; length <= 9; ++length)
        EXPECT_EQ(KindOf(ping, length), RequestKind::Ping) << length;
}

TEST(ClassifyRequest, TheIdIsReadBigEndian)
{
    EXPECT_EQ(KindOf({ 0x00, 0x00, 0xE2, 0xAD, 0, 0, 0, 0 }), RequestKind::BadPing);
    EXPECT_EQ(KindOf({ 0x00, 0x00, 0xAD, 0xE3 }), RequestKind::BadPing);
    EXPECT_EQ(KindOf({ 0x00, 0x00, 0xAC, 0xE2 }), RequestKind::BadPing);
}

TEST(ClassifyRequest, ANonZeroFirstWordIsIgnored)
{
    EXPECT_EQ(KindOf({ 0x01, 0x00, 0xAD, 0xE2 }), RequestKind::Other);
    EXPECT_EQ(KindOf({ 0x00, 0x01, 0xAD, 0xE2 }), RequestKind::Other);
    EXPECT_EQ(KindOf({ 0xFF, 0xFF }), RequestKind::Other);
}

TEST(ClassifyRequest, AnIdThatIsNotWholeIsNoId)
{
    EXPECT_EQ(KindOf({ 0x00, 0x00, 0xAD, 0xE2 }, 3), RequestKind::BadPing);
    EXPECT_EQ(KindOf({ 0x00, 0x00, 0xAD, 0xE2 }, 2), RequestKind::BadPing);
}

TEST(ClassifyRequest, LessThanAWordIsIgnored)
{
    EXPECT_EQ(KindOf({ 0x00, 0x00, 0xAD, 0xE2 }, 1), RequestKind::Other);
    EXPECT_EQ(KindOf({ 0x00, 0x00, 0xAD, 0xE2 }, 0), RequestKind::Other);
}

} // namespace
