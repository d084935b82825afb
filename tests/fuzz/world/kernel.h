#pragma once

#include <netinet/in.h>
#include <sys/time.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/world/fibers.h"

// What the code under test takes for the system: sockets without a network, threads without concurrency, a clock
// that the input moves. kernel_calls.cpp leads the calls of the C library here while a kernel is entered. Nothing
// leaves the process: a send is handed to onSend.
//
// Threads: the one that made it.
class Kernel {
public:
    // Whoever is in between is served by this kernel.
    class Entered {
    public:
        explicit Entered(Kernel& kernel) { s_pCurrent = &kernel; }
        Entered(const Entered&) = delete;
        Entered& operator=(const Entered&) = delete;
        ~Entered() { s_pCurrent = nullptr; }
    };
    static Kernel* Current() { return s_pCurrent; }

    Kernel();

    // Called with the bytes of each datagram that is sent. Returns 0, or the error that the send ends with.
    std::function<int(std::string_view datagram, const sockaddr_in& destination)> onSend;
    // The addresses of host names: 0 for an unknown one.
    std::function<in_addr_t(const char* name)> onLookUp;

    // A datagram comes in on that port (host order): who waits for it is run. False when nobody has the port.
    bool Deliver(uint16_t port, std::string_view datagram, in_addr_t sourceNet, uint16_t sourcePortNet);

    void Advance(uint32_t ms) { fibers.Run(fibers.NowMs() + ms); }
    // The wall clock starts anew, at a moment shortly before the media clock's ticks wrap.
    void ResetWallClock();
    void StepWallClock(int32_t ms) { m_nWallUs += int64_t { ms } * 1000; }
    timeval WallClock() const;
    uint32_t Ticks() const; // of the media clock, 90 kHz

    // What older datagrams left behind in the memory that one is received into; eight bytes, over and over.
    void SetLeftOver(std::string_view pattern) { m_leftOver = pattern; }
    // Datagrams were received into these pieces of memory; they are cleared.
    void ClearReceived();

    size_t OpenCount() const { return m_nOpen; }

    // The system calls, as kernel_calls.cpp has them; negative results are error numbers.
    int Open();
    int Duplicate(int fd);
    int DuplicateTo(int fd, int place);
    int Close(int fd);
    int Bind(int fd, uint16_t port);
    int ShutDown(int fd);
    int Send(int fd, std::string_view datagram, const sockaddr_in& destination);
    ssize_t Receive(int fd, uint8_t* buffer, size_t size, bool waits, sockaddr_in* source);
    bool IsReadable(int fd) const;
    static bool IsOurs(int fd) { return fd >= FIRST_FD && fd < FIRST_FD + FD_COUNT; }
    bool IsOpen(int fd) const { return IsOurs(fd) && At(fd) != nullptr; }

    Fibers fibers;

private:
    static constexpr int FIRST_FD = 5000;
    static constexpr int FD_COUNT = 1000;

    struct Datagram {
        std::string bytes;
        in_addr_t sourceNet;
        uint16_t sourcePortNet;
    };
    struct Socket {
        uint16_t port = 0; // host order; 0: not bound
        bool isShutDown = false;
        std::deque<Datagram> inbox;
    };

    const std::shared_ptr<Socket>& At(int fd) const { return m_sockets[static_cast<size_t>(fd - FIRST_FD)]; }
    std::shared_ptr<Socket>& At(int fd) { return m_sockets[static_cast<size_t>(fd - FIRST_FD)]; }
    int Put(const std::shared_ptr<Socket>& socket);

    static thread_local Kernel* s_pCurrent;
    std::array<std::shared_ptr<Socket>, FD_COUNT> m_sockets;
    size_t m_nOpen = 0;
    std::string_view m_leftOver;
    std::vector<std::pair<uint8_t*, size_t>> m_received;
    int64_t m_nWallUs = 0; // what the wall clock is ahead of the fibers' time
};
