#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <vector>

namespace kernel_model {

// A datagram that has arrived at a socket.
struct ReceivedDatagram {
    in_addr_t addressNet;
    uint16_t portNet;
    std::vector<uint8_t> bytes;
};

// One UDP socket as the kernel keeps it.
struct Socket {
    static constexpr int64_t FOR_EVER = -1;

    uint16_t port = 0; // its own, host order; 0: none yet
    uint64_t boundAs = 0; // the how manieth that got its port
    bool mayShare = false; // SO_REUSEADDR
    bool isShut = false; // for sending
    bool hasNoChecksums = false; // SO_NO_CHECK
    int64_t receiveTimeoutMs = FOR_EVER; // SO_RCVTIMEO
    std::optional<sockaddr_in> peer; // what it is connected to
    in_addr_t sourceNet = 0; // of what it sends there
    int pendingError = 0; // of an earlier datagram: the next call is told
    std::deque<ReceivedDatagram> received;
};

// Descriptors, several of which may mean one socket. Numbers start high, so that they are never taken for real ones;
// the lowest free one is given out. What fails returns the error number below 0.
class Sockets {
public:
    static constexpr int FIRST = 5000;
    static constexpr in_addr_t FIRST_ADDRESS = 0x0A000001; // 10.0.0.1, of this machine; host order

    // No number at all is ours too: nobody else's socket is meant by it.
    static bool IsOurs(int fd) { return fd >= FIRST || fd < 0; }

    int Make();
    // A descriptor of fd's socket: the lowest free one, or `wanted`, which is open and whose own socket is given up.
    int Duplicate(int fd, int wanted = -1);
    int Close(int fd);

    int Bind(int fd, uint16_t port);
    // Connects, once more if it is already; a port is chosen where there is none. AF_UNSPEC ends the connection.
    int Connect(int fd, const sockaddr_in& peer);
    // Its own address, as getsockname tells it.
    sockaddr_in LocalAddress(const Socket& socket) const;
    // A port of its own, unless it has one: before the first send.
    void GivePort(Socket& socket);

    // Null when the descriptor is not open.
    Socket* Find(int fd) const;
    // Who gets a datagram from that sender: of the sockets on that port (host order) the one that is connected to it,
    // otherwise, of those that are not connected, the last one that was bound; null when there is none.
    Socket* FindReceiver(uint16_t port, in_addr_t fromNet, uint16_t fromPortNet) const;
    // The next call on each connected socket is told of an error.
    void RaiseErrors(int error);

    int Open() const; // open descriptors
    int Made() const { return m_nMade; } // descriptors ever given out

    // The address that routing chooses for what is sent, and that a socket keeps once it is connected; 0: there is no
    // way to anybody.
    in_addr_t routedSourceNet = htonl(FIRST_ADDRESS);

private:
    int Give(std::shared_ptr<Socket> socket);
    bool IsTaken(uint16_t port, const Socket& by) const;

    std::vector<std::shared_ptr<Socket>> m_descriptors;
    int m_nMade = 0;
    uint64_t m_nBound = 0;
    uint16_t m_usNextPort = 40000; // that is chosen for who names none
};

} // namespace kernel_model
