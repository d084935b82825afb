#include "main/log_writer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <future>
#include <string>
#include <thread>

#include "base/unique_fd.h"
#include "support/system_hooks.h"

namespace {

constexpr size_t WRITER_CAPACITY = 64 * 1024;
constexpr uint32_t PATIENCE_MS = 20000;

// A pipe of the test's own in the place of an output.
struct Pipe {
    UniqueFd reader;
    UniqueFd writer;

    Pipe()
    {
        int ends[2] = { -1, -1 };
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        reader.Reset(ends[0]);
        writer.Reset(ends[1]);
    }

    // Fills it to its last byte with something that is no line of the log.
    void Fill() const
    {
        SetNonBlocking(true);
        while (write(writer.Get(), "#", 1) == 1) {}
        SetNonBlocking(false);
    }

    void SetNonBlocking(bool on) const
    {
        const int flags = fcntl(writer.Get(), F_GETFL);
        (void)fcntl(writer.Get(), F_SETFL, on ? flags | O_NONBLOCK : flags & ~O_NONBLOCK);
    }

    // Reads until the text has come; returns everything read but the filling.
    std::string ReadUntil(const std::string& wanted) const
    {
        std::string text;
        char bytes[4096];
        while (text.find(wanted) == std::string::npos) {
            const ssize_t count = read(reader.Get(), bytes, sizeof(bytes));
            if (count <= 0)
                break;
            text.append(bytes, static_cast<size_t>(count));
        }
        text.erase(0, text.find_first_not_of('#'));
        return text;
    }
};

class LogWriterTest : public testing::Test {
protected:
    LogWriterTest() { (void)signal(SIGPIPE, SIG_IGN); } // as main does

    void Print(const std::string& text) { m_writer->Append(LogStream::ERROR, text); }
    void End() { m_writer.reset(); }

    Pipe m_output;
    Pipe m_error;
    bool m_bOk = true;
    // Goes before the pipes.
    std::unique_ptr<LogWriter> m_writer
        = std::make_unique<LogWriter>(m_bOk, WRITER_CAPACITY, m_output.writer.Get(), m_error.writer.Get());
};

TEST_F(LogWriterTest, WritesEachStreamToItsDescriptorWithoutBeingAsked)
{
    ASSERT_TRUE(m_bOk && m_writer->Start());
    Print("part of a line");
    EXPECT_EQ(m_error.ReadUntil("part of a line"), "part of a line");
    m_writer->Append(LogStream::OUTPUT, "progress\n");
    EXPECT_EQ(m_output.ReadUntil("\n"), "progress\n");
}

TEST_F(LogWriterTest, TheEndWritesWhatIsLeft)
{
    ASSERT_TRUE(m_writer->Start());
    for (int i = 0; i < 100; ++i)
        Print("line " + std::to_string(i) + "\n");
    End();
    EXPECT_EQ(m_error.ReadUntil("line 99\n").size(), 10 * 7U + 90 * 8U);
}

TEST_F(LogWriterTest, NobodyWhoPrintsWaitsForAReaderThatHasStoppedAndTheLossIsReported)
{
    m_error.Fill();
    ASSERT_TRUE(m_writer->Start());
    constexpr int LINES = 20000; // several times both batches; would block for ever in a direct write
    for (int i = 0; i < LINES; ++i)
        Print("a line of the log\n");
    auto reading = std::async([this] { return m_error.ReadUntil("the last line\n"); });
    ASSERT_TRUE(m_writer->WaitUntilWritten(PATIENCE_MS));
    Print("the last line\n");
    const std::string text = reading.get();
    size_t kept = 0;
    long lost = 0;
    for (size_t at = 0; at < text.size(); at = text.find('\n', at) + 1) {
        const std::string line = text.substr(at, text.find('\n', at) - at);
        if (line == "a line of the log")
            ++kept;
        else if (line != "the last line") {
            EXPECT_TRUE(line.ends_with(" log lines lost: their reader is too slow")) << line;
            lost += std::stol(line);
        }
    }
    EXPECT_GT(lost, 0);
    EXPECT_EQ(static_cast<long>(kept) + lost, LINES);
}

TEST_F(LogWriterTest, WithoutAReaderLinesAreThrownAwayAndWhoPrintsNeverWaits)
{
    ASSERT_TRUE(m_writer->Start());
    m_error.reader.Reset();
    for (int i = 0; i < 1000; ++i) {
        Print("for nobody\n");
        m_writer->Append(LogStream::OUTPUT, "x");
    }
    ASSERT_TRUE(m_writer->WaitUntilWritten(PATIENCE_MS));
    m_writer->Append(LogStream::OUTPUT, "\n");
    EXPECT_EQ(m_output.ReadUntil("\n").substr(990), "xxxxxxxxxx\n") << "the other output goes on";
}

TEST_F(LogWriterTest, AFullDiskThrowsLinesAway)
{
    const UniqueFd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    LogWriter writer(m_bOk, WRITER_CAPACITY, m_output.writer.Get(), full.Get());
    ASSERT_TRUE(writer.Start());
    writer.Append(LogStream::ERROR, "no room\n");
    writer.Append(LogStream::OUTPUT, "behind\n");
    EXPECT_TRUE(writer.WaitUntilWritten(PATIENCE_MS));
    EXPECT_EQ(m_output.ReadUntil("\n"), "behind\n");
}

TEST_F(LogWriterTest, ADescriptorThatDoesNotBlockLosesNothing)
{
    m_error.Fill();
    m_error.SetNonBlocking(true);
    ASSERT_TRUE(m_writer->Start());
    const std::string line = std::string(99, 'x') + "\n";
    for (int i = 0; i < 300; ++i)
        Print(line);
    Print("end\n");
    EXPECT_EQ(m_error.ReadUntil("end\n").size(), 300 * line.size() + 4);
}

TEST_F(LogWriterTest, TheWaitEndsWithAReaderThatTakesNothing)
{
    m_error.Fill();
    ASSERT_TRUE(m_writer->Start());
    Print("never read\n");
    EXPECT_FALSE(m_writer->WaitUntilWritten(1));
    m_error.reader.Reset(); // sets the log thread free
}

TEST_F(LogWriterTest, ManyThreadsPrintWholeLines)
{
    ASSERT_TRUE(m_writer->Start());
    constexpr int THREADS = 4;
    constexpr int LINES = 200;
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i)
        threads.emplace_back([this] {
            for (int line = 0; line < LINES; ++line)
                Print("whole line\n");
        });
    for (std::thread& thread : threads)
        thread.join();
    Print("end\n");
    std::string expected;
    for (int i = 0; i < THREADS * LINES; ++i)
        expected += "whole line\n";
    EXPECT_EQ(m_error.ReadUntil("end\n"), expected + "end\n");
}

TEST_F(LogWriterTest, ARefusedThreadIsToldWithTheReason)
{
    const test_support::FailCalls refused(test_support::SystemCall::CreateThread, EAGAIN);
    EXPECT_FALSE(m_writer->Start());
    EXPECT_EQ(errno, EAGAIN);
}

} // namespace
