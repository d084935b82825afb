#pragma once

#include <netinet/in.h>
#include <sys/time.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>
#include <utility>
#include <vector>

#include "fuzz/world/fibers.h"
#include "kernel_model/socket_kernel.h"

// What the code under test takes for the system: sockets without a network, threads without concurrency, a clock
// that the input moves. kernel_calls.cpp leads the calls of the C library here while a kernel is entered. Nothing
// leaves the process: a message is handed to onMessage.
//
// Threads: the one that made it.
class Kernel : public kernel_model::SocketKernel {
public:
    // Whoever is in between is served by this kernel.
    class Entered {
    public:
        explicit Entered(Kernel& kernel) { SetCurrent(&kernel); }
        Entered(const Entered&) = delete;
        Entered& operator=(const Entered&) = delete;
        ~Entered() { SetCurrent(nullptr); }
    };
    static Kernel* Current() { return static_cast<Kernel*>(SocketKernel::Current()); }

    Kernel();

    // Called with each message that is to be sent. Returns 0, or the error that the call ends with.
    std::function<int(const kernel_model::Attempt&)> onRefuse;
    // Called with what became of it.
    std::function<void(const kernel_model::Attempt&, kernel_model::Fate)> onMessage;
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

    size_t OpenCount() const { return static_cast<size_t>(sockets.Open()); }

    Fibers fibers;

private:
    int Refuse(const kernel_model::Attempt& attempt) override { return onRefuse ? onRefuse(attempt) : 0; }
    void OnMessage(const kernel_model::Attempt& attempt, kernel_model::Fate fate) override;
    void OnTaken(const kernel_model::Socket& socket, const kernel_model::ReceivedDatagram& datagram,
        uint8_t* buffer, size_t count, size_t room) override;
    void WaitForDatagrams(int64_t ms) override;
    // As if there were always too many of them.
    int64_t WaitingBytes(const kernel_model::Socket& /*socket*/) override { return 212992; }
    void OnMisuse(const char* promise) override;

    std::string_view m_leftOver;
    std::vector<std::pair<uint8_t*, size_t>> m_received;
    int64_t m_nWallUs = 0; // what the wall clock is ahead of the fibers' time
};
