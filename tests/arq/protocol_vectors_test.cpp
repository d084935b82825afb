// The test vectors of docs/protocol.md, read from the page itself and held against the code. The bytes in
// host order are those of a little-endian machine.
#include <gtest/gtest.h>

#include <bit>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>

#include "arq/datagram_kind.h"
#include "arq/request_list.h"
#include "arq/wire.h"
#include "support/engine_fixture.h"
#include "support/test_packets.h"

using test_support::Bytes;
using test_support::BytesOf;
using test_support::EngineTest;
using test_support::Request;
using test_support::TestPacket;

namespace {

static_assert(std::endian::native == std::endian::little);

std::string PagePath()
{
    const std::filesystem::path here(__FILE__);
    return (here.parent_path().parent_path().parent_path() / "docs" / "protocol.md").string();
}

Bytes FromHex(const std::string& text)
{
    Bytes bytes;
    std::istringstream words(text);
    for (std::string word; words >> word;)
        bytes.push_back(static_cast<uint8_t>(std::stoul(word, nullptr, 16)));
    return bytes;
}

// The lines "name: bytes" of the block that begins with ```vectors.
std::map<std::string, Bytes> ReadVectors()
{
    std::map<std::string, Bytes> vectors;
    std::ifstream page(PagePath());
    bool isInBlock = false;
    for (std::string line; std::getline(page, line);) {
        if (line.rfind("```", 0) == 0) {
            isInBlock = line == "```vectors";
            continue;
        }
        const size_t colon = line.find(": ");
        if (isInBlock && colon != std::string::npos)
            vectors[line.substr(0, colon)] = FromHex(line.substr(colon + 2));
    }
    return vectors;
}

// An engine that has sent `media-first` at tick 1,000,000.
class ProtocolVectors : public EngineTest {
protected:
    ProtocolVectors()
    {
        MakeEngine({ .ringSize = 4096, .headerBuilding = true });
        m_pEngine->StoreSent(m_first.Get());
    }

    const Bytes& Vector(const std::string& name)
    {
        EXPECT_EQ(m_vectors.count(name), 1U) << name;
        return m_vectors[name];
    }

    static StreamTagInfo TagOf(const Bytes& bytes)
    {
        return ReadStreamTag(bytes.data(), static_cast<int32_t>(bytes.size()));
    }

    std::map<std::string, Bytes> m_vectors = ReadVectors();
    TestPacket m_first { Vector("media-first") };
};

TEST_F(ProtocolVectors, ThePageHoldsTheseAndNoOthers)
{
    const std::set<std::string> expected { "media-built", "media-first", "media-again", "request-one",
        "request-two", "request-wrap", "request-odd", "request-window", "request-wrong", "request-tagged",
        "echo", "echo-bare", "echo-wrong", "tag", "tag-swapped", "leave", "leave-swapped", "leave-tagged",
        "stop" };
    std::set<std::string> names;
    for (const auto& [name, bytes] : m_vectors)
        names.insert(name);
    EXPECT_EQ(names, expected);
}

TEST_F(ProtocolVectors, ABuiltHeaderHasTheBytesOfThePage)
{
    Bytes expected = Vector("media-built");
    ASSERT_EQ(expected.size(), 12U);
    MediaHeader header {};
    header.flags.Set(RTP_VERSION_FLAGS);
    header.payloadType.Set(MEDIA_PAYLOAD_TYPE);
    header.seq.Set(0x1234);
    header.timestamp.Set(0xA1B2C3D4);
    header.ssrc.Set(0x11223344);
    EXPECT_EQ(std::memcmp(&header, expected.data(), sizeof(header)), 0);
    m_clock.Set(0xA1B2C3D4);
    uint8_t nothing = 0;
    const Bytes built = BytesOf(*m_pEngine->BuildAndStore(&nothing, 0, 0x1234));
    const uint32_t ssrc = m_pEngine->Ssrc();
    std::memcpy(&expected[8], &ssrc, sizeof(ssrc)); // a live engine's own
    EXPECT_EQ(built, expected);
}

TEST_F(ProtocolVectors, ARequestBringsThePacketAgainWithPayloadType122)
{
    EXPECT_EQ(Process(Vector("request-one")), 1U);
    ASSERT_EQ(m_callback.Count(), 1U);
    EXPECT_EQ(m_callback.Sent()[0], Vector("media-again"));
}

TEST_F(ProtocolVectors, ATaggedRequestIsTheRequestBehindItsTag)
{
    const Bytes& tagged = Vector("request-tagged");
    EXPECT_EQ(TagOf(tagged).streamId, 0x01020304U);
    EXPECT_FALSE(TagOf(tagged).isLeave);
    EXPECT_EQ(Process(Bytes(tagged.begin() + STREAM_TAG_BYTES, tagged.end())), 1U);
    ASSERT_EQ(m_callback.Count(), 1U);
    EXPECT_EQ(m_callback.Sent()[0], Vector("media-again"));
}

TEST_F(ProtocolVectors, RequestsHaveTheBytesOfThePage)
{
    EXPECT_EQ(Vector("request-one"), Request({ 65535 }));
    EXPECT_EQ(Vector("request-two"), Request({ 100, 102 }));
    EXPECT_EQ(Vector("request-wrap"), Request({ 65534, 65535, 0 }));
    for (const char* name :
        { "request-one", "request-two", "request-wrap", "request-odd", "request-window" }) {
        const Bytes& bytes = Vector(name);
        const RequestList list(bytes.data(), static_cast<int32_t>(bytes.size()));
        EXPECT_TRUE(list.IsChecksumRight()) << name;
        EXPECT_EQ(list.Count(), (bytes.size() - 10) / 2) << name;
    }
}

TEST_F(ProtocolVectors, NumbersOfRequestsAreLookedUp)
{
    for (const char* name : { "request-two", "request-wrap", "request-odd" }) {
        m_pEngine->ClearStats();
        EXPECT_EQ(Process(Vector(name)), 1U) << name;
        const ArqSendStats stats = Stats();
        const Bytes& bytes = Vector(name);
        EXPECT_EQ(stats.notInBuffer + stats.retransmitted, (bytes.size() - 10) / 2) << name;
        EXPECT_EQ(stats.arqRetries, 2U) << name;
        EXPECT_EQ(stats.arqIntervalMs, 200U) << name;
    }
}

TEST_F(ProtocolVectors, AWindowIsSetWithoutNumbers)
{
    EXPECT_EQ(Process(Vector("request-window")), 1U);
    const ArqSendStats stats = Stats();
    EXPECT_EQ(stats.arqRetries, 3U);
    EXPECT_EQ(stats.arqIntervalMs, 250U);
    EXPECT_EQ(stats.arqExtraMs, 40U);
    EXPECT_EQ(m_pEngine->MaxAgeTicks(), 93600U);
}

TEST_F(ProtocolVectors, AWrongChecksumIsDropped)
{
    EXPECT_EQ(Process(Vector("request-wrong")), 0U);
    EXPECT_EQ(Stats().notInBuffer, 0U);
}

TEST_F(ProtocolVectors, EchoPingsComeBackUnchanged)
{
    for (const char* name : { "echo", "echo-bare" }) {
        m_callback.Forget();
        EXPECT_EQ(Process(Vector(name)), 1U) << name;
        ASSERT_EQ(m_callback.Count(), 1U) << name;
        EXPECT_EQ(m_callback.Sent()[0], Vector(name));
    }
}

TEST_F(ProtocolVectors, AnEchoPingWithAWrongIdIsNotAnswered)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ(Process(Vector("echo-wrong")), 0U);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "CArqSend: ProcessBuffer: BAD ARQ_PING_ID\n");
    EXPECT_EQ(m_callback.Count(), 0U);
}

TEST_F(ProtocolVectors, TagsNameTheStreamInEitherByteOrderOfTheMagic)
{
    for (const char* name : { "tag", "tag-swapped" }) {
        EXPECT_EQ(TagOf(Vector(name)).streamId, 0x01020304U) << name;
        EXPECT_FALSE(TagOf(Vector(name)).isLeave) << name;
    }
}

TEST_F(ProtocolVectors, LeavesAreLeavesWithAndWithoutAStreamId)
{
    for (const char* name : { "leave", "leave-swapped", "leave-tagged", "stop" })
        EXPECT_TRUE(TagOf(Vector(name)).isLeave) << name;
    EXPECT_EQ(TagOf(Vector("leave")).streamId, 0U);
    EXPECT_EQ(TagOf(Vector("leave-tagged")).streamId, 0x01020304U);
}

TEST_F(ProtocolVectors, TheStopMessageHasTheBytesOfThePage)
{
    EXPECT_EQ(Vector("stop"), Bytes(STOP_MESSAGE, STOP_MESSAGE + sizeof(STOP_MESSAGE)));
}

} // namespace
