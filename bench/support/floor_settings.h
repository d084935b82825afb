#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <vector>

// What bench/floors is told: how to forward.
struct FloorSettings {
    bool oneThread = false;
    bool connected = false;
    bool together = false;
    bool receiveMany = false;
    bool wakeByCondition = false;
    bool stamp = false;
    uint32_t train = 1;
    long timeOutMs = 0;
    int sendBuffer = 0;
    uint16_t inputPort = 0;
    std::vector<sockaddr_in> destinations;
};

// Gives up, with a text that says how it is used, on anything it does not know.
FloorSettings ReadFloorSettings(int argc, char** argv);
