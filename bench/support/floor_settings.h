#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <vector>

// What bench/floors is told: how to forward.
struct FloorSettings {
    bool oneThread = false;
    bool connected = false; // a socket of its own for each receiver
    bool together = false; // sendmmsg to all receivers over one socket
    bool receiveMany = false;
    bool wakeByCondition = false;
    bool stamp = false; // read the clock for each packet
    uint32_t train = 1; // packets that wait and go as one message, at most
    long timeOutMs = 0; // 0: none
    int sendBuffer = 0; // bytes; 0: the kernel's default
    uint16_t inputPort = 0;
    std::vector<sockaddr_in> destinations;
};

// Gives up, with a text that says how it is used, on anything it does not know.
FloorSettings ReadFloorSettings(int argc, char** argv);
