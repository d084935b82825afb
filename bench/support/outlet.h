#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

// Where the datagrams of a process under test go: destinations that swallow and count what reaches them.
// Nobody has to be awake for it, so all the machine's time that is measured is the process's own.
class Outlet {
public:
    Outlet() = default;
    Outlet(const Outlet&) = delete;
    Outlet& operator=(const Outlet&) = delete;
    virtual ~Outlet() = default;

    // Makes destinations 0 to `count` - 1 on `port`, in host order. Every process under test gets a port of
    // its own.
    virtual void Open(int32_t count, uint16_t port) = 0;

    // The address of destination `index`, without its port.
    virtual in_addr AddressOf(int32_t index) const = 0;

    // Datagrams swallowed so far on all ports, when all have `payloadBytes`. A train counts as its pieces.
    virtual int64_t Delivered(int32_t payloadBytes) = 0;

    // Sends one ping from each of the `count` destinations to `pingPort` of the process under test.
    virtual void Ping(int32_t count, uint16_t port, uint16_t pingPort) = 0;

    // One line for the table's head.
    virtual std::string Description() const = 0;
};

// Sends known numbers of single datagrams and of trains to destination 0 on `port`. Gives up when another
// number is counted.
void CheckCounting(Outlet& outlet, uint16_t port);

// The dotted quad.
std::string AddressText(in_addr address);

// "ADDRESS,ADDRESS,..." of destinations 0 to `count` - 1, as the proxy takes it.
std::string AddressList(const Outlet& outlet, int32_t count);

// Sockets on 127.0.0.2 and up with a filter that lets nothing through.
std::unique_ptr<Outlet> MakeLoopbackOutlet();

// A network device that drops what it is given to send, in a network namespace that this process enters for
// good, with a private /dev, so that nothing stays behind. Before any thread is started. Null, with the
// reason in `why`, where the process may not do that or the kernel has no such device.
std::unique_ptr<Outlet> MakeDeviceOutlet(std::string& why);
