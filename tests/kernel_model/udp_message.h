#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace kernel_model {

// What a sendmsg says, read as the kernel reads it.
struct UdpMessage {
    static constexpr size_t MOST_BYTES = 65507; // what fits one IPv4 packet
    static constexpr size_t MOST_IOVECS = 1024;
    // The kernel took so many for years; newer ones take more, which is not to be relied upon.
    static constexpr size_t MOST_PIECES = 64;
    static constexpr size_t LOWER_HEADER_BYTES = 28; // IPv4 and UDP

    std::optional<sockaddr_in> destination; // none: where the socket is connected to
    bool choosesSource = false; // IP_PKTINFO: the source address is not the socket's, but chosen anew
    size_t segmentBytes = 0; // UDP_SEGMENT; 0: one datagram
    std::vector<uint8_t> bytes; // all of it

    // Reads it, and what it is wrong in too; 0 or the error number. What was read before stays in memory only as room.
    int Read(const msghdr& header);

    bool IsTrain() const { return segmentBytes != 0; }
    size_t PieceBytes() const { return IsTrain() ? segmentBytes : bytes.size(); }
    // How many receivers read.
    size_t Datagrams() const
    {
        return IsTrain() && !bytes.empty() ? (bytes.size() + segmentBytes - 1) / segmentBytes : 1;
    }
    // What the kernel says to a train on a device with that MTU; 0 when there is nothing to say against it.
    int JudgeTrain(size_t mtuBytes, int tooLongError, bool hasNoChecksums) const;

    // Calls told(first byte, bytes) for each datagram that receivers read.
    template <typename Told>
    void ForEachDatagram(Told told) const
    {
        size_t at = 0;
        do {
            const size_t some
                = IsTrain() && bytes.size() - at > segmentBytes ? segmentBytes : bytes.size() - at;
            told(bytes.data() + at, some);
            at += some;
        } while (at < bytes.size());
    }

private:
    int ReadControl(const msghdr& header);
};

} // namespace kernel_model
