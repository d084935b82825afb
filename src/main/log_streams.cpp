#include "main/log_streams.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <new>

#include "base/unique_fd.h"
#include "main/log_writer.h"

namespace {

constexpr size_t CAPACITY = 512UL * 1024; // bytes, twice; some thousand lines: no burst of ours comes near
constexpr uint32_t PATIENCE_MS = 1000;

struct FileCloser {
    void operator()(FILE* file) const { (void)fclose(file); }
};
using OwnedFile = std::unique_ptr<FILE, FileCloser>;

template <LogStream STREAM>
ssize_t Write(void* writer, const char* text, size_t size)
{
    static_cast<LogWriter*>(writer)->Append(STREAM, { text, size });
    return static_cast<ssize_t>(size);
}

template <LogStream STREAM>
OwnedFile OpenStream(LogWriter* writer, int bufferMode)
{
    OwnedFile file(fopencookie(writer, "w", { nullptr, Write<STREAM>, nullptr, nullptr }));
    if (file && setvbuf(file.get(), nullptr, bufferMode, 0) != 0)
        file.reset();
    return file;
}

// A descriptor that is closed would be given to the next socket, and the log with it to whoever is there.
void OccupyIfClosed(int fd)
{
    if (fcntl(fd, F_GETFD) != -1)
        return;
    UniqueFd nothing(open("/dev/null", O_WRONLY | O_CLOEXEC));
    if (nothing.Get() == fd)
        (void)nothing.Release();
    else if (nothing.IsValid())
        (void)dup2(nothing.Get(), fd);
}

} // namespace

LogWriter* TakeOverStreams()
{
    OccupyIfClosed(STDOUT_FILENO);
    OccupyIfClosed(STDERR_FILENO);
    bool ok = true;
    std::unique_ptr<LogWriter> writer(
        new (std::nothrow) LogWriter(ok, CAPACITY, STDOUT_FILENO, STDERR_FILENO));
    if (!writer || !ok)
        return nullptr;
    OwnedFile output = OpenStream<LogStream::OUTPUT>(writer.get(), _IOLBF);
    OwnedFile error = OpenStream<LogStream::ERROR>(writer.get(), _IONBF);
    if (!output || !error)
        return nullptr;
    if (!writer->Start()) {
        perror("cannot start the log thread");
        return nullptr;
    }
    stdout = output.release();
    stderr = error.release();
    return writer.release();
}

void FinishLog(LogWriter* writer)
{
    if (writer == nullptr)
        return;
    (void)fflush(stdout);
    (void)writer->WaitUntilWritten(PATIENCE_MS);
}
