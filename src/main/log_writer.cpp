#include "main/log_writer.h"

#include "main/write_all.h"
#include "pacing/ms_clock.h"

LogWriter::LogWriter(bool& ok, size_t capacity, int outputFd, int errorFd)
    : m_buffer(ok, capacity, outputFd, errorFd)
{
}

LogWriter::~LogWriter()
{
    {
        const MutexLock lock(m_mutex);
        m_bEnding = true;
    }
    m_wanted.Signal();
    m_crew.WaitUntilGone();
}

bool LogWriter::Start()
{
    return m_crew.Start(Run, this);
}

void LogWriter::Append(LogStream stream, std::string_view text)
{
    {
        const MutexLock lock(m_mutex);
        m_buffer.Append(stream, text);
    }
    m_wanted.Signal();
}

// In turns, not by a deadline: the wall clock may be set meanwhile.
bool LogWriter::WaitUntilWritten(uint32_t patienceMs)
{
    uint32_t progress = m_nProgress;
    for (uint32_t waitedMs = 0; waitedMs < patienceMs; ++waitedMs) {
        if (IsIdle())
            return true;
        (void)SleepMs(1);
        if (m_nProgress != progress)
            waitedMs = 0;
        progress = m_nProgress;
    }
    return IsIdle();
}

bool LogWriter::IsIdle()
{
    const MutexLock lock(m_mutex);
    return m_buffer.IsEmpty() && !m_bWriting;
}

void LogWriter::Run(void* writer)
{
    auto* self = static_cast<LogWriter*>(writer);
    while (const LogBatch* batch = self->NextBatch())
        self->WriteBatch(*batch);
}

// Null at the end.
const LogBatch* LogWriter::NextBatch()
{
    const MutexLock lock(m_mutex);
    m_bWriting = false;
    while (m_buffer.IsEmpty() && !m_bEnding)
        m_wanted.Wait(m_mutex);
    if (m_buffer.IsEmpty())
        return nullptr;
    m_bWriting = true;
    return &m_buffer.Take();
}

void LogWriter::WriteBatch(const LogBatch& batch)
{
    size_t place = 0;
    for (LogRun run = batch.Next(&place); !run.text.empty(); run = batch.Next(&place))
        WriteAll(run.fd, run.text, m_nProgress);
}
