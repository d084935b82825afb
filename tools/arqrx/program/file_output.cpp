#include "arqrx/program/file_output.h"

#include <unistd.h>

#include <array>
#include <utility>
#include <vector>

#include "common/clock.h"

namespace arqrx {

FileOutput::FileOutput(std::string name, bool isFraming, size_t queueBytes)
    : m_bFraming(isFraming),
      m_queue(queueBytes)
{
    m_figures.name = std::move(name);
}

FileOutput::~FileOutput()
{
    EndThread(0);
}

bool FileOutput::Open(const std::string& path, std::string& problem)
{
    return m_file.Open(path, problem);
}

void FileOutput::OpenStandardOutput()
{
    m_file.Borrow(STDOUT_FILENO);
}

void FileOutput::Start()
{
    m_thread = std::thread([this] { WriteAll(); });
}

void FileOutput::Send(std::span<const PlayedPacket> packets)
{
    for (const PlayedPacket& packet : packets) {
        if (!m_bFailed.load(std::memory_order_relaxed) && Push(packet))
            ++m_figures.packets;
        else
            ++m_figures.dropped;
    }
    m_queue.Ring();
}

bool FileOutput::Push(const PlayedPacket& packet)
{
    if (!m_bFraming)
        return m_queue.Push(packet.payload, {});
    const size_t size = packet.datagram.size();
    const std::array<uint8_t, 2> length { static_cast<uint8_t>(size >> 8), static_cast<uint8_t>(size) };
    return m_queue.Push(length, packet.datagram);
}

void FileOutput::EndThread(int64_t patienceUs)
{
    m_file.GiveUpAt(common::NowUs() + patienceUs);
    m_queue.Close();
    if (m_thread.joinable())
        m_thread.join();
}

OutputFigures FileOutput::Counted() const
{
    OutputFigures figures = m_figures;
    figures.hasFailed = m_bFailed.load();
    const std::lock_guard lock(m_problemMutex);
    figures.problem = m_problem;
    return figures;
}

void FileOutput::WriteAll()
{
    std::vector<uint8_t> bytes;
    std::string problem;
    while (m_queue.Pop(bytes)) {
        if (m_file.Write(bytes, problem))
            continue;
        const std::lock_guard lock(m_problemMutex);
        m_problem = problem;
        m_bFailed.store(true);
        return;
    }
}

} // namespace arqrx
