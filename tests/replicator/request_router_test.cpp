#include "replicator/request_router.h"

#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "replicator/stream_table.h"
#include "support/captured_output.h"
#include "support/loopback.h"
#include "support/recording_engine.h"

namespace {

using namespace test_support;

using Processed = std::vector<Bytes>;

class RequestRouterTest : public testing::Test {
protected:
    // A stream with that ID (0: none), and what its engine is given.
    RecordingEngine& Append(const char* address, uint32_t streamId)
    {
        auto stream = std::make_unique<MyArqSendCB>(m_stats, Net(address), uint16_t { 9 }, streamId);
        RecordingEngine& engine = ReplaceEngine(*stream);
        const StreamTable::Lock lock(m_table);
        m_table.Append(std::move(stream));
        return engine;
    }

    void RemoveFirst()
    {
        const StreamTable::Lock lock(m_table);
        m_table.Remove(0);
    }

    void Route(const char* address, uint32_t streamId, const Bytes& data)
    {
        OwnedPacket packet(data);
        RouteRequest(m_table, packet.Get(), Net(address), streamId, m_time);
    }

    RequestTime m_time { 1000, false };
    TransmitStats m_stats;
    StreamTable m_table;
};

TEST_F(RequestRouterTest, ARequestGoesToTheEngineOfTheStreamAtItsAddress)
{
    const RecordingEngine& first = Append("127.0.0.2", 0);
    const RecordingEngine& second = Append("127.0.0.3", 0);
    Route("127.0.0.3", 0, { 1, 2, 3 });
    EXPECT_EQ(first.m_processed, Processed {});
    EXPECT_EQ(second.m_processed, (Processed { { 1, 2, 3 } }));
}

TEST_F(RequestRouterTest, ATaggedRequestGoesToTheEngineOfTheStreamWithItsIDFromAnyAddress)
{
    const RecordingEngine& first = Append("127.0.0.2", 7);
    const RecordingEngine& second = Append("127.0.0.2", 8);
    Route("127.0.0.9", 8, Tagged(8, { 1, 2, 3 }));
    EXPECT_EQ(first.m_processed, Processed {});
    EXPECT_EQ(second.m_processed, (Processed { { 1, 2, 3 } }));
}

TEST_F(RequestRouterTest, TheTagIsStrippedWhenItsIDIsNotZero)
{
    const RecordingEngine& engine = Append("127.0.0.2", 7);
    Route("127.0.0.9", 7, Tagged(7, { 1, 2, 3 }));
    Route("127.0.0.9", 7, Tagged(7, {}));
    EXPECT_EQ(engine.m_processed, (Processed { { 1, 2, 3 }, {} }));
}

TEST_F(RequestRouterTest, ATagWithIDZeroIsNotStripped)
{
    const RecordingEngine& engine = Append("127.0.0.2", 0);
    Route("127.0.0.2", 0, Tagged(0, { 1, 2, 3 }));
    EXPECT_EQ(engine.m_processed, (Processed { Tagged(0, { 1, 2, 3 }) }));
}

TEST_F(RequestRouterTest, ATaggedRequestWithAnUnknownIDMayMatchAConfiguredAddressAndIsStripped)
{
    const RecordingEngine& engine = Append("127.0.0.2", 0);
    Route("127.0.0.2", 99, Tagged(99, { 1, 2, 3 }));
    EXPECT_EQ(engine.m_processed, (Processed { { 1, 2, 3 } }));
}

TEST_F(RequestRouterTest, RequestsForUnknownStreamsAreIgnoredSilently)
{
    const RecordingEngine& engine = Append("127.0.0.2", 7);
    CapturedOutput output;
    Route("127.0.0.2", 0, { 1, 2, 3 });
    Route("127.0.0.2", 8, Tagged(8, { 1, 2, 3 }));
    EXPECT_EQ(output.Err(), "");
    EXPECT_EQ(output.Out(), "");
    EXPECT_EQ(engine.m_processed, Processed {});
}

TEST_F(RequestRouterTest, ARequestIsRoutedWhileAnotherReaderStandsInTheTable)
{
    const RecordingEngine& engine = Append("127.0.0.2", 0);
    const StreamTable::View held(m_table);
    Route("127.0.0.2", 0, { 1 });
    EXPECT_EQ(engine.m_processed, (Processed { { 1 } }));
}

TEST_F(RequestRouterTest, ARequestOfAStreamThatHasLeftIsIgnoredWhileAReaderStillUsesIt)
{
    const RecordingEngine& engine = Append("127.0.0.2", 0);
    const StreamTable::View held(m_table);
    RemoveFirst();
    Route("127.0.0.2", 0, { 1 });
    EXPECT_EQ(engine.m_processed, Processed {});
}

// ---- Where datagrams of others wait

class CrowdedRouterTest : public RequestRouterTest {
protected:
    CrowdedRouterTest() { m_time.isCrowded = true; }
};

TEST_F(CrowdedRouterTest, WhatIsBeyondAReceiversQuotaIsDroppedUntilThatHasDrainedAway)
{
    RecordingEngine& engine = Append("127.0.0.2", 0);
    engine.m_nWorkOfEach = RequestQuota::MOST_WORK;
    Route("127.0.0.2", 0, { 1 });
    Route("127.0.0.2", 0, { 2 });
    m_time.nowMs += RequestQuota::PERIOD_MS;
    Route("127.0.0.2", 0, { 3 });
    EXPECT_EQ(engine.m_processed, (Processed { { 1 }, { 3 } }));
}

TEST_F(CrowdedRouterTest, TheQuotaOfOneIsNotTheQuotaOfAnother)
{
    RecordingEngine& greedy = Append("127.0.0.2", 7);
    RecordingEngine& other = Append("127.0.0.2", 8);
    greedy.m_nWorkOfEach = RequestQuota::MOST_WORK;
    for (int i = 0; i < 3; ++i) {
        Route("127.0.0.2", 7, Tagged(7, { 1 }));
        Route("127.0.0.2", 8, Tagged(8, { 2 }));
    }
    EXPECT_EQ(greedy.m_processed.size(), 1U);
    EXPECT_EQ(other.m_processed.size(), 3U);
}

TEST_F(RequestRouterTest, WhereNobodyWaitsAReceiverGetsAllThatItAsksFor)
{
    RecordingEngine& engine = Append("127.0.0.2", 0);
    engine.m_nWorkOfEach = RequestQuota::MOST_WORK;
    for (int i = 0; i < 10; ++i)
        Route("127.0.0.2", 0, { 1 });
    EXPECT_EQ(engine.m_processed.size(), 10U);
}

// What it had before counts, too, once others wait.
TEST_F(RequestRouterTest, WhatAReceiverHadCountsOnceOthersWait)
{
    RecordingEngine& engine = Append("127.0.0.2", 0);
    engine.m_nWorkOfEach = RequestQuota::MOST_WORK;
    Route("127.0.0.2", 0, { 1 });
    m_time.isCrowded = true;
    Route("127.0.0.2", 0, { 2 });
    EXPECT_EQ(engine.m_processed, (Processed { { 1 } }));
}

TEST_F(RequestRouterTest, WhatAReceiverHadWhileNobodyWaitedDoesNotShutItOutForLong)
{
    RecordingEngine& engine = Append("127.0.0.2", 0);
    engine.m_nWorkOfEach = RequestQuota::MOST_WORK;
    for (int i = 0; i < 1000; ++i)
        Route("127.0.0.2", 0, { 1 });
    engine.m_processed.clear();
    m_time.isCrowded = true;
    m_time.nowMs += 2 * RequestQuota::PERIOD_MS;
    Route("127.0.0.2", 0, { 2 });
    EXPECT_EQ(engine.m_processed, (Processed { { 2 } }));
}

} // namespace
