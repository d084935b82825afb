#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "input/packet_buffer.h"
#include "input/packet_queue.h"
#include "input/udp_input.h"
#include "support/captured_output.h"
#include "support/loopback.h"

namespace {

using namespace test_support;

std::atomic<int> s_fullQueues { 0 };

void CountFull(PacketQueue* /*queue*/)
{
    ++s_fullQueues;
}

// What the input's data callback was shown; the input thread writes, the test reads when it has been joined.
struct Transformed {
    int32_t length;
    uint8_t* data;
};

// An input whose queue is full of packets that belong to nobody: each thing that the test takes out of it lets one
// packet in, and what is sent meanwhile waits at the socket.
class UdpInputStreamTest : public testing::Test {
protected:
    static constexpr int32_t CAPACITY = 40;
    static constexpr uint32_t POOL = 64;

    UdpInputStreamTest()
    {
        s_transforming = this;
        FillTheQueue();
    }
    ~UdpInputStreamTest() override { End(); }

    void Start(bool hasSession = false)
    {
        m_thread = std::thread([this, hasSession] {
            RunUdpInput({ m_running, m_lease.Port(), 0, *m_pool, m_queue,
                { hasSession ? &m_session : nullptr, RecordTransformed }, m_inputBytes, m_sourceAddress });
        });
        ASSERT_TRUE(WaitFor([this] { return IsBoundOnAllAddresses(m_lease.Port()); }));
    }

    void Send(const Bytes& data) { m_encoder.SendTo("127.0.0.1", m_lease.Port(), data); }

    void FillTheQueue()
    {
        for (int32_t i = 0; i < CAPACITY; ++i)
            EXPECT_EQ(m_queue.push(&m_stopper, 0), 1);
        s_fullQueues = 0;
    }

    // Uses every buffer once, the i-th for a datagram of this length, and fills the queue again.
    static int32_t FirstLength(uint32_t i) { return 188 * static_cast<int32_t>(1 + i % 8); }
    void GoThroughThePool()
    {
        for (uint32_t i = 0; i < POOL; ++i) {
            Send(Payload(static_cast<size_t>(FirstLength(i)), static_cast<uint8_t>(i)));
            const PacketBuffer* packet = Next();
            ASSERT_NE(packet, nullptr);
            EXPECT_EQ(packet->Length(), FirstLength(i));
        }
        FillTheQueue();
    }

    // Sends a first one, on which the input waits for room, and then these, all of which it takes next. A datagram that
    // has been sent may reach its socket a moment later, when the system delivers on another thread.
    void SendToWaitTogether(const std::vector<Bytes>& datagrams)
    {
        Send(Payload(12));
        ASSERT_TRUE(WaitFor([] { return s_fullQueues == 1; }));
        for (const Bytes& datagram : datagrams) {
            const std::optional<uint32_t> unread = UnreadBytes(m_lease.Port());
            Send(datagram);
            ASSERT_TRUE(WaitFor([&] { return UnreadBytes(m_lease.Port()) > unread; }));
        }
        EXPECT_EQ(m_queue.pop(nullptr, 0), &m_stopper);
        ASSERT_TRUE(WaitFor([] { return s_fullQueues == 2; }));
    }

    // The next packet that the input has pushed, the first one of SendToWaitTogether left out; null when none came.
    PacketBuffer* Next()
    {
        for (int isInTime = 1; isInTime != 0;) {
            PacketBuffer* packet = m_queue.pop(&isInTime, LONGEST_WAIT_MS);
            if (packet != nullptr && packet != &m_stopper && packet->Length() != 12)
                return packet; // null: woken late, by the signal for one taken before
        }
        return nullptr;
    }

    void End()
    {
        m_running = 0;
        while (m_thread.joinable() && m_queue.pop(nullptr, LONGEST_WAIT_MS) != nullptr) {}
        if (m_thread.joinable())
            m_thread.join();
    }

    static int RecordTransformed(void* session, uint8_t* data, int32_t length)
    {
        EXPECT_EQ(session, &s_transforming->m_session);
        s_transforming->m_transformed.push_back({ length, data });
        return 0;
    }
    static UdpInputStreamTest* s_transforming;

    const CapturedOutput m_output;
    PortLease m_lease;
    Receiver m_encoder { "127.0.0.3" };
    const std::unique_ptr<PacketBufferPool> m_pool = PacketBufferPool::createDefault(POOL);
    PacketBuffer m_stopper {};
    bool m_ok = true;
    PacketQueue m_queue { m_ok, CAPACITY, CountFull, nullptr };
    PlainWord<int32_t> m_running { 1 };
    PlainWord<uint32_t> m_inputBytes { 0 };
    char m_sourceAddress[INET_ADDRSTRLEN] = "";
    int m_session = 0;
    std::vector<Transformed> m_transformed;
    std::thread m_thread;
};

UdpInputStreamTest* UdpInputStreamTest::s_transforming = nullptr;

TEST_F(UdpInputStreamTest, DatagramsThatWaitedTogetherArePassedOnWholeAndInTheirOrder)
{
    std::vector<Bytes> sent;
    for (uint8_t i = 0; i < 31; ++i)
        sent.push_back(Payload(1U + 50U * i, i));
    sent.push_back(Payload(1536, 77));
    Start();
    SendToWaitTogether(sent);
    for (const Bytes& datagram : sent) {
        const PacketBuffer* packet = Next();
        ASSERT_NE(packet, nullptr);
        EXPECT_EQ(packet->partCount, 1U);
        EXPECT_EQ(BytesOf(*packet), datagram);
    }
}

// While the input waits for room with the first one of them, its socket has no other.
TEST_F(UdpInputStreamTest, WhileMainIsBehindWhatWaitsIsReceivedInOneCall)
{
    Start();
    SendToWaitTogether(std::vector<Bytes>(32, Payload(100)));
    EXPECT_EQ(UnreadBytes(m_lease.Port()), 0U);
}

TEST_F(UdpInputStreamTest, EachOfThoseThatWaitedIsCountedWithItsLowerHeadersAndEmptyOnesAreNot)
{
    Start();
    SendToWaitTogether({ Payload(100), {}, Payload(1316), Payload(1), {} });
    EXPECT_EQ(m_inputBytes, 12U + 42 + 100 + 42 + 1316 + 42 + 1 + 42);
}

TEST_F(UdpInputStreamTest, TheBufferOfAnEmptyDatagramIsTheNextOnes)
{
    Start();
    SendToWaitTogether({ {}, Payload(101), {}, {}, Payload(102), Payload(103), {} });
    const PacketBuffer* first = Next();
    const PacketBuffer* second = Next();
    const PacketBuffer* third = Next();
    ASSERT_TRUE(first != nullptr && second != nullptr && third != nullptr);
    EXPECT_EQ(BytesOf(*first), Payload(101));
    EXPECT_EQ(BytesOf(*second), Payload(102));
    EXPECT_EQ(BytesOf(*third), Payload(103));
    EXPECT_EQ(second, first + 1) << "the pool's buffers lie in the order in which they are taken";
    EXPECT_EQ(third, first + 2);
}

TEST_F(UdpInputStreamTest, TheFirstSenderOfAllIsRecordedWhoeverSendsNext)
{
    Receiver other("127.0.0.4");
    Start();
    m_encoder.SendTo("127.0.0.1", m_lease.Port(), {}); // an empty one tells of nobody
    other.SendTo("127.0.0.1", m_lease.Port(), Payload(100));
    ASSERT_TRUE(WaitFor([] { return s_fullQueues == 1; }));
    Send(Payload(100));
    other.SendTo("127.0.0.1", m_lease.Port(), Payload(100));
    for (int i = 0; i < 3; ++i)
        EXPECT_NE(Next(), nullptr);
    End();
    EXPECT_STREQ(m_sourceAddress, "127.0.0.4");
}

// With a session each is handed on before the next one is looked at, so the run ends between them. Null is what
// wakes main, which sees then that it has ended.
TEST_F(UdpInputStreamTest, WhenTheRunEndsAmongThemAllOfThemArePassedOnAndThenANull)
{
    Start(true);
    SendToWaitTogether({ Payload(101), Payload(102), Payload(103) });
    m_running = 0;
    for (const size_t length : { 101U, 102U, 103U }) {
        const PacketBuffer* packet = Next();
        ASSERT_NE(packet, nullptr);
        EXPECT_EQ(BytesOf(*packet), Payload(length));
    }
    m_thread.join();
    int isInTime = 0;
    EXPECT_EQ(m_queue.pop(&isInTime, 0), nullptr);
    EXPECT_EQ(isInTime, 1);
    EXPECT_EQ(m_queue.Count(), 0);
}

// The callback works with what the buffer held before; behind a shorter datagram that is still there.
TEST_F(UdpInputStreamTest, ThoseThatWaitedAreTransformedInTheirBuffersWithThePreviousLengths)
{
    Start(true);
    GoThroughThePool();
    EXPECT_EQ(m_transformed.size(), 0U);
    // They get the buffers from 1 on; buffer 3 has nothing to transform.
    SendToWaitTogether({ Payload(188), {}, Payload(12 + 188), Payload(100), Payload(376) });
    const PacketBuffer* packets[] = { Next(), Next(), Next(), Next() };
    End();
    ASSERT_EQ(m_transformed.size(), 3U);
    EXPECT_EQ(m_transformed[0].data, packets[0]->Data());
    EXPECT_EQ(m_transformed[0].length, FirstLength(1));
    EXPECT_EQ(m_transformed[1].data, packets[1]->Data() + 188);
    EXPECT_EQ(m_transformed[1].length, FirstLength(2) - 188);
    EXPECT_EQ(m_transformed[2].data, packets[3]->Data());
    EXPECT_EQ(m_transformed[2].length, FirstLength(4));
    const Bytes stale = Payload(376, 1);
    EXPECT_EQ(
        Bytes(packets[0]->Data() + 188, packets[0]->Data() + 376), Bytes(stale.begin() + 188, stale.end()));
}

// While the first of them waits for room the second one is not touched yet.
TEST_F(UdpInputStreamTest, ATransformedPacketIsHandedOnBeforeTheNextOneIsTransformed)
{
    Start(true);
    GoThroughThePool();
    SendToWaitTogether({ Payload(188), Payload(188), Payload(188) });
    EXPECT_EQ(m_transformed.size(), 1U);
    for (int i = 0; i < 3; ++i)
        EXPECT_NE(Next(), nullptr);
    End();
    EXPECT_EQ(m_transformed.size(), 3U);
}

} // namespace
