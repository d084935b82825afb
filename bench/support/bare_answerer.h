#pragma once

#include <netinet/in.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>

#include "base/unique_fd.h"
#include "input/packet_buffer.h"

// The least that answering requests can cost without trains: a thread that waits at two sockets, reads what is there
// with one call and answers each number with one sendto, whatever it is.
class BareAnswerer {
public:
    // Answers go to `port` at the address of who asks, from as much memory as a pool of `poolSize` buffers.
    BareAnswerer(uint16_t port, int32_t poolSize);
    BareAnswerer(const BareAnswerer&) = delete;
    BareAnswerer& operator=(const BareAnswerer&) = delete;
    ~BareAnswerer();

    uint16_t RequestPort() const { return m_usRequestPort; }

    // Processor time of the thread so far.
    int64_t CpuNs();

private:
    void Run();
    void Serve();
    void Answer(const uint8_t* request, in_addr to);

    const uint16_t m_usPort;
    const uint16_t m_usRequestPort;
    UniqueFd m_requests;
    UniqueFd m_other; // nobody sends to it
    UniqueFd m_sender;
    std::unique_ptr<PacketBufferPool> m_pPool;
    std::atomic<bool> m_bEnd { false };
    std::thread m_thread;
};
