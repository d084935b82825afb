#include "main/log_buffer.h"

#include <gtest/gtest.h>

#include <string>

namespace {

constexpr int OUT = 1;
constexpr int ERR = 2;
constexpr size_t CAPACITY = 256;
constexpr size_t RESERVE = 2 * (LogBatch::RUN_BYTES + 1);
constexpr size_t ROOM = CAPACITY - LogBatch::RUN_BYTES - RESERVE; // for one run
constexpr char LOST_ONE[] = "2:1 log lines lost: their reader is too slow\n";

// What a batch holds: before each run its descriptor.
std::string TextOf(const LogBatch& batch)
{
    std::string text;
    size_t place = 0;
    for (LogRun run = batch.Next(&place); !run.text.empty(); run = batch.Next(&place))
        text += std::to_string(run.fd) + ":" + std::string(run.text);
    return text;
}

std::string Notice(int lines)
{
    return std::to_string(lines) + " log lines lost: their reader is too slow\n";
}

class LogBufferTest : public testing::Test {
protected:
    void Print(const std::string& text) { m_buffer.Append(LogStream::ERROR, text); }
    void Fill() { Print(std::string(ROOM - 1, 'f') + "\n"); }
    std::string Taken() { return TextOf(m_buffer.Take()); }

    bool m_bOk = true;
    LogBuffer m_buffer { m_bOk, CAPACITY, OUT, ERR };
};

TEST_F(LogBufferTest, GivesWhatWasAppendedInItsOrderOnce)
{
    EXPECT_TRUE(m_buffer.IsEmpty());
    Print("one\n");
    m_buffer.Append(LogStream::OUTPUT, "two\n");
    Print("three");
    EXPECT_FALSE(m_buffer.IsEmpty());
    EXPECT_EQ(Taken(), "2:one\n1:two\n2:three");
    EXPECT_TRUE(m_buffer.IsEmpty());
    EXPECT_EQ(Taken(), "");
}

TEST_F(LogBufferTest, TheBatchThatIsBeingWrittenStaysAsItIsWhileTheOtherIsFilled)
{
    Print("one\n");
    const LogBatch& written = m_buffer.Take();
    Fill();
    Print("lost\n");
    EXPECT_EQ(TextOf(written), "2:one\n");
}

TEST_F(LogBufferTest, AFullBatchLosesNothingAndTheNextLineIsLostWhole)
{
    Fill();
    Print("lost\n");
    EXPECT_EQ(Taken(), "2:" + std::string(ROOM - 1, 'f') + "\n");
    EXPECT_EQ(Taken(), LOST_ONE);
}

TEST_F(LogBufferTest, TheNoticeStandsWhereTheLostLinesWouldHaveStood)
{
    Fill();
    Print("lost\n");
    Print("lost\n");
    (void)m_buffer.Take();
    Print("later\n");
    EXPECT_EQ(Taken(), "2:" + Notice(2) + "later\n");
}

TEST_F(LogBufferTest, AShortLineBehindALongLostOneIsLostTooForTheOrder)
{
    Print("first\n");
    Print(std::string(ROOM, 'x') + "\n");
    Print("short\n");
    m_buffer.Append(LogStream::OUTPUT, "other\n");
    EXPECT_EQ(Taken(), "2:first\n");
    EXPECT_EQ(Taken(), "2:" + Notice(3));
}

TEST_F(LogBufferTest, ABeginningThatWasKeptIsEndedAndTheRestOfItsLineGoesWithTheLost)
{
    Print("begin");
    Print(std::string(ROOM, 'x'));
    Print("rest\n");
    EXPECT_EQ(Taken(), "2:begin\n");
    Print("later\n");
    EXPECT_EQ(Taken(), "2:" + Notice(1) + "later\n");
}

TEST_F(LogBufferTest, TheEndOfACutLineFitsIntoAFullBatchForBothStreams)
{
    m_buffer.Append(LogStream::OUTPUT, "o");
    Print(std::string(ROOM - LogBatch::RUN_BYTES - 1, 'e'));
    Print("lost");
    m_buffer.Append(LogStream::OUTPUT, "lost");
    EXPECT_EQ(Taken(), "1:o2:" + std::string(ROOM - LogBatch::RUN_BYTES - 1, 'e') + "\n1:\n");
    EXPECT_EQ(Taken(), "2:" + Notice(2));
}

TEST_F(LogBufferTest, TheRestOfALostLineDoesNotComeBackBehindTheNotice)
{
    Fill();
    Print("stamp: ");
    (void)m_buffer.Take();
    Print("text");
    Print(" of the lost line\nwhole\n");
    EXPECT_EQ(Taken(), "2:" + Notice(1) + "whole\n");
}

TEST_F(LogBufferTest, ALineOfOneStreamIsNoRestOfTheOthers)
{
    Fill();
    Print("stamp: ");
    (void)m_buffer.Take();
    m_buffer.Append(LogStream::OUTPUT, "whole\n");
    EXPECT_EQ(Taken(), "2:" + Notice(1) + "1:whole\n");
}

TEST_F(LogBufferTest, LinesAreCountedNotTexts)
{
    Fill();
    Print("a\nb\nc");
    Print("c\nd\n");
    Print("\n");
    (void)m_buffer.Take();
    EXPECT_EQ(Taken(), "2:" + Notice(5));
}

TEST_F(LogBufferTest, AnEmptyTextIsNothing)
{
    Print("");
    EXPECT_TRUE(m_buffer.IsEmpty());
    Fill();
    Print("lost");
    Print("");
    (void)m_buffer.Take();
    EXPECT_EQ(Taken(), LOST_ONE);
}

TEST_F(LogBufferTest, CountsAfreshAfterEveryNotice)
{
    for (int round = 0; round < 3; ++round) {
        Fill();
        Print("lost\n");
        (void)m_buffer.Take();
        EXPECT_EQ(Taken(), LOST_ONE);
    }
}

} // namespace
