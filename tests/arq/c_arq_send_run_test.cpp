// The statistics of consecutive numbers.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "support/engine_fixture.h"

using test_support::EngineTest;
using test_support::Seqs;

namespace {

class ArqRunTest : public EngineTest {};

TEST_F(ArqRunTest, RunsCountNumbersThatFollowTheOneBefore)
{
    struct {
        const char* name;
        std::vector<Seqs> requests;
        uint32_t longestRun;
        uint32_t nextExpected;
    } const cases[] = {
        { "one number", { { 5 } }, 0, 6 },
        { "number 0 follows the start", { { 0 } }, 1, 1 },
        { "three from 0", { { 0, 1, 2 } }, 3, 3 },
        { "three in a row", { { 5, 6, 7 } }, 2, 8 },
        { "a gap starts again", { { 5, 6, 7, 9, 10 } }, 2, 11 },
        { "the longer of two", { { 5, 6, 20, 21, 22, 23 } }, 3, 24 },
        { "a shorter one later", { { 20, 21, 22, 23, 5, 6 } }, 3, 7 },
        { "backwards", { { 7, 6, 5 } }, 0, 6 },
        { "repeated", { { 5, 5, 5 } }, 0, 6 },
        { "across the wrap", { { 65534, 65535, 0, 1 } }, 3, 2 },
        { "65535 expects 0", { { 65535 } }, 0, 0 },
        { "the next number is known in the next request", { { 5 }, { 6 } }, 1, 7 },
        { "but the run begins again with each request", { { 5, 6, 7 }, { 8 }, { 9 } }, 2, 10 },
    };
    for (const auto& c : cases) {
        MakeEngine();
        for (const Seqs& seqs : c.requests)
            EXPECT_EQ(Ask(seqs), 1U);
        EXPECT_EQ(Stats().longestRun, c.longestRun) << c.name;
        EXPECT_EQ(m_pEngine->NextExpectedRequest(), c.nextExpected) << c.name;
    }
}

TEST_F(ArqRunTest, OnlyClearRingResetsTheNextExpectedRequest)
{
    EXPECT_EQ(Ask({ 5 }), 1U);
    m_pEngine->ClearStats();
    EXPECT_EQ(Ask({ 6 }), 1U);
    EXPECT_EQ(Stats().longestRun, 1U);
    m_pEngine->ClearStats();
    m_pEngine->ClearRing();
    EXPECT_EQ(Ask({ 7 }), 1U);
    EXPECT_EQ(Stats().longestRun, 0U);
}

} // namespace
