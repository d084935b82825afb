#pragma once

#include <netinet/in.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

#include "input/packet_buffer.h"
#include "outlet.h"

// How receivers ask: this many of them at the same moment, each for so many numbers, once in a period. The ring is
// asked for in turn, so slowly that no number is held off and that nobody's quota is spent where requests of others
// wait, and with a pause in which the listen thread goes to sleep.
struct Habit {
    const char* name;
    int32_t askers;
    uint16_t numbers;
    int64_t periodNs;

    int64_t Datagrams() const { return int64_t { askers } * numbers; } // in a period
};

// A thread that does nothing but sendto, to as many destinations and from as much memory as the proxy's pool.
class BareSender {
public:
    BareSender(Outlet& outlet, const Habit& habit, int32_t poolSize);
    BareSender(const BareSender&) = delete;
    BareSender& operator=(const BareSender&) = delete;
    ~BareSender();

    // Lets the thread send what one period's requests would bring.
    void SendOnce();

    // Processor time of the calls so far, and how many there were.
    int64_t CpuNs() const { return m_nCpuNs; }
    int64_t Sent() const { return m_nSent; }

private:
    void Run();

    const Habit m_habit;
    std::unique_ptr<PacketBufferPool> m_pPool;
    std::vector<sockaddr_in> m_destinations;
    std::atomic<uint64_t> m_nBatches { 0 };
    std::atomic<int64_t> m_nCpuNs { 0 };
    std::atomic<int64_t> m_nSent { 0 };
    std::atomic<bool> m_bEnd { false };
    std::thread m_thread;
};
