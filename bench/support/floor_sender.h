#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <cstdint>
#include <vector>

#include "base/unique_fd.h"
#include "floor_packet.h"
#include "floor_settings.h"

// One message: a packet, or a train of packets of one size, the last of which may be shorter.
class FloorMessage {
public:
    // Takes as many of the `count` packets as may travel together; returns how many.
    uint32_t Build(FloorPacket* const* packets, uint32_t count);

    // For one receiver. `destination` is null on a connected socket.
    msghdr To(const sockaddr_in* destination);
    bool IsTrain() const { return m_nPieces > 1; }
    const iovec& Only() const { return m_pieces[0]; }

private:
    iovec m_pieces[MOST_AT_ONCE] {};
    size_t m_nPieces = 0;
    uint16_t m_usSize = 0;
    alignas(cmsghdr) char m_control[CMSG_SPACE(sizeof(uint16_t))] {};
};

// The sockets to all receivers, and the way of sending that the settings want.
class FloorSender {
public:
    // `settings` must outlive it.
    explicit FloorSender(const FloorSettings& settings);

    // Sends `count` packets to every receiver.
    void Send(FloorPacket* const* packets, uint32_t count);

private:
    void SendEach();
    void SendTogether();

    const FloorSettings& m_settings;
    std::vector<UniqueFd> m_sockets;
    std::vector<mmsghdr> m_messages;
    FloorMessage m_message;
};
