#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

#include "arq/c_arq_send_cb.h"
#include "base/plain_word.h"
#include "replicator/datagram_target.h"
#include "replicator/request_quota.h"
#include "replicator/shared_socket.h"
#include "replicator/socket_chooser.h"
#include "replicator/stream_life.h"
#include "replicator/traffic_stats.h"
#include "replicator/train_refusals.h"
#include "replicator/train_send.h"

// One output stream: an entry of the replicator's table and the callback through which the stream's own
// ARQ engine puts datagrams on the wire.
//
// Threads: the sending threads (media) and the listen thread (retransmissions) send, ask for the
// way and count without a lock. All else is called by whoever holds the replicator lock, or
// before the stream is in the table.
class MyArqSendCB : public CArqSendCB {
public:
    // A stream to `addressNet`:`port` (network order; host order), not yet alive unless the address is
    // 127.0.0.1, which needs no pings. `owner` counts what is sent and outlives the stream.
    MyArqSendCB(TransmitStats& owner, in_addr_t addressNet, uint16_t port, uint32_t streamId);
    ~MyArqSendCB() override;

    // Makes the stream's own socket 0. A socket that cannot be made stays -1 and the stream's sends fail.
    void OpenSocket();

    // Sends from another stream's socket instead; the stream does not own it.
    void BorrowSocket(const SharedSocket& socket);

    // One socket for each of the interfaces eth0, eth1, ... (`nInterfaces` of them, 4 at most), with
    // datagrams shared out by weight as SocketChooser does. An interface that is not there is reported
    // and its socket left unbound.
    void BindInterfaces(int32_t nInterfaces, uint32_t percent);

    // Lets the stream's own socket be connected, which its sends make use of as soon as there is a way
    // to the receiver; see connected_socket.h. Only for one socket that nobody reads. FollowRoute,
    // called now and then, connects it when that was not possible before, and again when datagrams
    // would now have another source address.
    void UseConnectedSocket();
    void FollowRoute();

    // A share of socket `index`, which keeps it open; empty when there is none.
    SharedSocket ShareSocket(int32_t index) const { return m_holders[index]; }
    int32_t SocketNumber(int32_t index) const { return m_sockets[index].Load(); }

    // Lets media leave from `pingSocket`'s port from now on: puts a duplicate of it in the place of the
    // current socket. False, with a message, when no duplicate could be made: nothing has changed then.
    // An own socket is replaced in one step, so that a thread that sends meanwhile never meets a closed or
    // foreign descriptor. A borrowed one stays with its owner; only a stream that was never alive borrows
    // and adopts, so nobody sends on what is given up.
    bool AdoptSocket(int pingSocket);

    int SendData(PacketBuffer* packet) override;
    int32_t SendAtOnce(PacketBuffer* const* packets, int32_t count) override
    {
        return SendSome(packets, count).taken;
    }

    // Sends packets in their order, like SendData each, up to the first one that would have to wait. Returns
    // how many are done with: sent, or refused and reported.
    int32_t SendUnlessWaiting(PacketBuffer* const* packets, int32_t count);

    // The way of the next datagram.
    DatagramTarget Target() const;
    // Tells which streams send from one and the same socket: equal values. -1
    // when this one's datagrams go alone.
    int SharedSocketKey() const;
    // Counts what has left to this stream or others of the same owner.
    void CountSent(int32_t packets, size_t bytes);

    // Sends the stop message once, whether the stream is alive or not. Never waits: the receiver that takes
    // nothing more is the very one that is being deleted.
    void SendStop();

    // The stream is taken out of the table: it is no longer alive, which a fan-out that still walks over it
    // takes in silence, and a thread that stands in a send to it is let go at once. A socket that others send
    // from too, such as a duplicate of the ping socket, is left as it is.
    void Leave();

    in_addr_t AddressNet() const { return m_nAddressNet; }
    uint16_t ConfiguredPort() const { return m_usConfiguredPort; }
    uint16_t DestinationPortNet() const { return m_usPortNet; }
    void SetDestinationPortNet(uint16_t portNet) { m_usPortNet = portNet; }
    uint32_t StreamId() const { return m_nStreamId; }
    const char* HostText() const { return m_hostText; }
    bool OwnsSockets() const { return m_bOwnsSockets; }

    RequestQuota m_quota; // the listen thread's own
    StreamLife m_life; // used under the replicator lock
    // Datagrams are sent only while set. Changed under the replicator lock, read without it; set last, so
    // that who sees it sees the socket and the port that it is for.
    PublishedWord<bool> m_bIsAlive { false };

private:
    void CutOff();
    void SetSocket(int32_t index, SharedSocket socket);
    TrainResult SendSome(PacketBuffer* const* packets, int32_t count);
    TrainResult SendInTurn(const PacketBuffer& packet);

    TransmitStats& m_owner;
    const in_addr_t m_nAddressNet;
    const uint16_t m_usConfiguredPort; // host order
    PlainWord<uint16_t> m_usPortNet; // destination port; follows the receiver's media port
    const uint32_t m_nStreamId; // 0 for streams configured by address
    // What senders use, kept open by the shares below. Published, because a descriptor may be newer than the
    // stream: a media start that found none free is tried again.
    using Socket = PublishedWord<int>;
    Socket m_sockets[SocketChooser::MAX_SOCKETS];
    SharedSocket m_holders[SocketChooser::MAX_SOCKETS];
    SocketChooser m_chooser;
    bool m_bOwnsSockets = false; // the sockets were made for this stream, not borrowed from stream 0
    // The ping socket, if the socket is a duplicate of that and shares its send buffer; -1 if not.
    PublishedWord<int> m_nAdopted { -1 };
    bool m_bMayConnect = false; // used under the replicator lock
    PublishedWord<bool> m_bIsConnected { false }; // senders need not name the address
    TrainRefusals m_refusals;
    PlainWord<bool> m_bHasLeft { false }; // set under the replicator lock, read by the sending threads
    char m_hostText[32] = ""; // the destination address in dotted form
};
