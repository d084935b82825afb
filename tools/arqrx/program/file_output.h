#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <thread>

#include "arqrx/program/byte_queue.h"
#include "arqrx/program/output.h"
#include "arqrx/program/stream_file.h"

namespace arqrx {

// The stream as bytes in a file, a pipe or standard output. A thread of its own writes, so that a slow disk or a full
// pipe never holds the stream up: what finds no room in the queue is dropped, packet by packet, and counted.
// Threads: see Output; the thread inside lives from Start to Finish or the destructor.
class FileOutput : public Output {
public:
    // `isFraming`: whole datagrams, each behind its length in two bytes, big-endian (RFC 4571); else payloads only.
    FileOutput(std::string name, bool isFraming, size_t queueBytes);
    ~FileOutput() override;

    bool Open(const std::string& path, std::string& problem);
    void OpenStandardOutput();
    // The thread; after Open, before Send.
    void Start();

    void Send(std::span<const PlayedPacket> packets) override;
    void Finish(int64_t patienceUs) override { EndThread(patienceUs); }
    OutputFigures Counted() const override;

private:
    bool Push(const PlayedPacket& packet);
    void EndThread(int64_t patienceUs);
    void WriteAll();

    const bool m_bFraming;
    StreamFile m_file;
    ByteQueue m_queue;
    OutputFigures m_figures; // the media thread's; what has failed is told by the next two
    std::atomic<bool> m_bFailed { false };
    mutable std::mutex m_problemMutex;
    std::string m_problem;
    std::thread m_thread;
};

} // namespace arqrx
