#pragma once

#include <netinet/in.h>

// The way of a stream's next datagrams: a UDP socket and the receiver's address behind it.
struct DatagramTarget {
    int fd = -1;
    sockaddr_in address {};
    bool isConnected = false; // the socket is connected to that address; sends need not name it
};
