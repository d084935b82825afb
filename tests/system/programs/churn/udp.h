#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <string>

#include "wire.h"

// A UDP socket that is closed with its owner.
class Udp {
public:
    // Bound to `address`, port 0 for any; shared with other sockets of that port. Ends the program when that fails.
    explicit Udp(const sockaddr_in& address);
    Udp(Udp&& other) noexcept;
    Udp& operator=(Udp&& other) noexcept;
    ~Udp();

    int Get() const { return m_nSocket; }
    void Send(const Bytes& data, const sockaddr_in& to) const;

private:
    int m_nSocket;
};

// While it lives, sockets are made in the network namespace of that name (of `ip netns`).
class InNamespace {
public:
    explicit InNamespace(const std::string& name);
    InNamespace(const InNamespace&) = delete;
    InNamespace& operator=(const InNamespace&) = delete;
    ~InNamespace();

private:
    int m_nHome;
};

sockaddr_in Address(const char* text, uint16_t port);
sockaddr_in Loopback(uint8_t third, uint8_t fourth, uint16_t port); // 127.0.third.fourth

[[noreturn]] void Die(const char* what); // says why, too
