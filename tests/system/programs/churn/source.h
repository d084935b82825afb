#pragma once

#include <netinet/in.h>

#include <atomic>
#include <cstdint>
#include <thread>

// The input: packets with ascending numbers at the wanted rate, but never more ahead of what the receivers that
// stay have got than the proxy's queue holds. So whatever is lost is lost by the proxy.
//
// Threads: main runs all operations; a thread of its own sends.
class Source {
public:
    // The first packets pass the wrap of the 16-bit number.
    static constexpr uint64_t FIRST_NUMBER = 64000;
    // Less than the proxy's input queue of 512.
    static constexpr uint64_t MOST_AHEAD = 300;
    // Of the oldest packet that somebody still asks for again: less than the proxy's ring of 4096.
    static constexpr uint64_t OLDEST_MISSING = 2000;

    Source(const sockaddr_in& input, double perSecond);
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;
    ~Source();

    void Start() { m_bWanted = true; }
    void Stop(); // returns when nothing more is sent

    // All numbers up to this one have been given to the proxy, or are at this moment.
    uint64_t Sent() const { return m_nSent; }

    // What every receiver that stays has got at least once, and the oldest that one of them lacks.
    void Confirm(uint64_t number, uint64_t oldestMissing);
    uint64_t Confirmed() const { return m_nConfirmed; }

private:
    void Run();
    uint64_t Allowed() const;
    void SendSome(uint64_t count);

    const sockaddr_in m_input;
    const double m_perSecond;
    std::atomic<uint64_t> m_nSent { FIRST_NUMBER - 1 };
    std::atomic<uint64_t> m_nConfirmed { FIRST_NUMBER - 1 };
    std::atomic<uint64_t> m_nOldestMissing { FIRST_NUMBER };
    std::atomic<bool> m_bWanted { false };
    std::atomic<bool> m_bSending { false };
    std::atomic<bool> m_bEnd { false };
    std::thread m_thread;
};
