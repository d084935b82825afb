#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "base/condition.h"
#include "base/mutex.h"
#include "base/plain_word.h"
#include "main/log_buffer.h"
#include "replicator/thread_crew.h"

// Writes the log in place of those who print it: a reader that is slow, or has stopped reading, holds up one
// thread of its own and nobody who sends media.
//
// Threads: any thread appends and waits only for others that append; the log thread takes and writes.
class LogWriter {
public:
    // `capacity` in bytes, twice. Without memory `ok` becomes false. The descriptors are borrowed.
    LogWriter(bool& ok, size_t capacity, int outputFd, int errorFd);
    LogWriter(const LogWriter&) = delete;
    LogWriter& operator=(const LogWriter&) = delete;
    // Waits until everything has been written, however long that takes.
    ~LogWriter();

    // Starts the log thread. False, with errno, when the system refuses it; then nothing must be appended.
    bool Start();

    void Append(LogStream stream, std::string_view text) EXCLUDES(m_mutex);

    // Waits until everything has been written, but not longer than `patienceMs` at a stretch in which nothing
    // is taken. Returns whether everything has.
    bool WaitUntilWritten(uint32_t patienceMs) EXCLUDES(m_mutex);

private:
    static void Run(void* writer);
    const LogBatch* NextBatch() EXCLUDES(m_mutex);
    void WriteBatch(const LogBatch& batch);
    bool IsIdle() EXCLUDES(m_mutex);

    Mutex m_mutex;
    Condition m_wanted;
    LogBuffer m_buffer GUARDED_BY(m_mutex); // the batch that was taken is the log thread's
    bool m_bWriting GUARDED_BY(m_mutex) = false;
    bool m_bEnding GUARDED_BY(m_mutex) = false;
    PlainWord<uint32_t> m_nProgress { 0 }; // pieces written; the log thread adds
    ThreadCrew m_crew;
};
