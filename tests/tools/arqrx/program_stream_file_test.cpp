#include "arqrx/program/stream_file.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

namespace {

using arqrx::StreamFile;

// A folder that goes away with what is in it.
class Folder {
public:
    Folder() { EXPECT_NE(mkdtemp(m_path), nullptr); }
    ~Folder()
    {
        (void)unlink(Path("file").c_str());
        (void)rmdir(m_path);
    }
    std::string Path(const std::string& name) const { return std::string(m_path) + "/" + name; }

private:
    char m_path[32] = "/tmp/stream_file_XXXXXX";
};

struct Pipe {
    Pipe() { EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0); }
    std::array<int, 2> ends {};
};

std::string ContentOf(const std::string& path)
{
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

const std::vector<uint8_t> BYTES { 'a', 'b', 'c' };

TEST(StreamFile, ReplacesAFile)
{
    const Folder folder;
    std::ofstream(folder.Path("file")) << "something longer";
    StreamFile file;
    std::string problem;
    ASSERT_TRUE(file.Open(folder.Path("file"), problem)) << problem;
    EXPECT_TRUE(file.Write(BYTES, problem));
    EXPECT_TRUE(file.Write(BYTES, problem));
    EXPECT_EQ(ContentOf(folder.Path("file")), "abcabc");
}

TEST(StreamFile, AnOldFileStandsUntilThereIsSomethingNew)
{
    const Folder folder;
    std::ofstream(folder.Path("file")) << "an evening's recording";
    std::string problem;
    {
        StreamFile file;
        ASSERT_TRUE(file.Open(folder.Path("file"), problem)) << problem;
    }
    EXPECT_EQ(ContentOf(folder.Path("file")), "an evening's recording");
}

TEST(StreamFile, TellsWhyItCannotBeOpenedAndWhatToDo)
{
    const Folder folder;
    StreamFile file;
    std::string problem;
    EXPECT_FALSE(file.Open(folder.Path("none/file"), problem));
    EXPECT_EQ(problem, "No such file or directory; make the folder first");
    EXPECT_FALSE(file.Open(folder.Path("."), problem));
    EXPECT_EQ(problem, "Is a directory; name a file in it");
}

TEST(StreamFile, ANamedPipeNeedsItsReaderFirst)
{
    const Folder folder;
    ASSERT_EQ(mkfifo(folder.Path("file").c_str(), 0600), 0);
    StreamFile file;
    std::string problem;
    EXPECT_FALSE(file.Open(folder.Path("file"), problem));
    EXPECT_EQ(problem, "nobody reads the pipe; start its reader first");
}

TEST(StreamFile, AFullDiskIsAProblem)
{
    StreamFile file;
    std::string problem;
    ASSERT_TRUE(file.Open("/dev/full", problem));
    EXPECT_FALSE(file.Write(BYTES, problem));
    EXPECT_EQ(problem, "No space left on device");
}

TEST(StreamFile, AReaderThatWentIsAProblem)
{
    (void)std::signal(SIGPIPE, SIG_IGN);
    const Pipe pipe;
    StreamFile file;
    file.Borrow(pipe.ends[1]);
    std::string problem;
    EXPECT_TRUE(file.Write(BYTES, problem));
    close(pipe.ends[0]);
    EXPECT_FALSE(file.Write(BYTES, problem));
    EXPECT_EQ(problem, "its reader has gone");
    close(pipe.ends[1]);
}

TEST(StreamFile, WaitsForASlowReaderUntilTheTimeToGiveUp)
{
    const Pipe pipe;
    StreamFile file;
    file.Borrow(pipe.ends[1]);
    const std::vector<uint8_t> much(1 << 20, 7);
    std::string problem;
    size_t got = 0;
    std::thread reader([&] {
        std::vector<uint8_t> bytes(10'000);
        while (got < much.size())
            got += static_cast<size_t>(read(pipe.ends[0], bytes.data(), bytes.size()));
    });
    EXPECT_TRUE(file.Write(much, problem)) << problem;
    reader.join();
    EXPECT_EQ(got, much.size());
    file.GiveUpAt(0);
    EXPECT_FALSE(file.Write(much, problem));
    EXPECT_EQ(problem, "its reader is too slow");
    close(pipe.ends[0]);
    close(pipe.ends[1]);
}

} // namespace
