#include "replicator/my_arq_send_cb.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "arq/wire.h"
#include "input/packet_buffer.h"
#include "replicator/connected_socket.h"
#include "replicator/datagram_send.h"
#include "replicator/log_timestamp.h"
#include "replicator/send_mode.h"

namespace {

constexpr int NO_SOCKET = -1;

// A UDP socket that may share its port; invalid when it could not be made so.
UniqueFd OpenStreamSocket()
{
    UniqueFd socket(::socket(AF_INET, SOCK_DGRAM, 0));
    const int on = 1;
    if (socket.IsValid() && setsockopt(socket.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0) {
        LogStamped("Error: setsockopt(SO_REUSEADDR) failed\n");
        socket.Reset();
    }
    return socket;
}

void BindToInterface(int socket, int32_t index)
{
    constexpr size_t NAME_BYTES = 32;
    char name[NAME_BYTES] = "";
    (void)snprintf(name, sizeof(name), "eth%d", index);
    if (setsockopt(socket, SOL_SOCKET, SO_BINDTODEVICE, name, sizeof(name)) != 0)
        perror("SO_BINDTODEVICE failed");
}

} // namespace

MyArqSendCB::MyArqSendCB(TransmitStats& owner, in_addr_t addressNet, uint16_t port, uint32_t streamId)
    : m_owner(owner),
      m_nAddressNet(addressNet),
      m_usConfiguredPort(port),
      m_usPortNet(htons(port)),
      m_nStreamId(streamId),
      m_sockets { Socket(NO_SOCKET), Socket(NO_SOCKET), Socket(NO_SOCKET), Socket(NO_SOCKET) }
{
    (void)inet_ntop(AF_INET, &m_nAddressNet, m_hostText, sizeof(m_hostText));
    if (addressNet == htonl(INADDR_LOOPBACK)) {
        m_life.MakeStatic();
        m_bIsAlive = true;
    }
}

// The engine goes first: it still points to this record.
MyArqSendCB::~MyArqSendCB()
{
    m_pEngine.reset();
}

void MyArqSendCB::OpenSocket()
{
    m_bOwnsSockets = true;
    SetSocket(0, SharedSocket(OpenStreamSocket().Release()));
}

void MyArqSendCB::BorrowSocket(const SharedSocket& socket)
{
    m_bOwnsSockets = false;
    SetSocket(0, socket);
}

void MyArqSendCB::BindInterfaces(int32_t nInterfaces, uint32_t percent)
{
    const int32_t count = std::clamp(nInterfaces, 1, SocketChooser::MAX_SOCKETS);
    for (int32_t i = 0; i < count; ++i) {
        if (i > 0)
            SetSocket(i, SharedSocket(OpenStreamSocket().Release()));
        BindToInterface(m_sockets[i].Load(), i);
    }
    m_chooser.UseInterfaces(count, percent);
}

void MyArqSendCB::UseConnectedSocket()
{
    m_bMayConnect = true;
    FollowRoute();
}

// Senders see the flag before the socket is connected, and name the address once they are
// told that it is not: a connected socket that they took for a plain one could report an
// earlier datagram's fate as this one's.
void MyArqSendCB::FollowRoute()
{
    if (!m_bMayConnect || !m_holders[0].IsValid())
        return;
    const DatagramTarget target = Target();
    if (!target.isConnected) {
        m_bIsConnected = true;
        m_bIsConnected = ConnectSocket(target.fd, target.address);
        return;
    }
    const in_addr_t source = RoutedSource(target.address);
    if (source == 0 || source == SourceOf(target.fd))
        return;
    const UniqueFd twin = ConnectedTwin(target.fd, target.address);
    const UniqueFd old(dup(target.fd));
    if (twin.IsValid() && old.IsValid() && dup2(twin.Get(), target.fd) >= 0) // in one step, as in AdoptSocket
        (void)shutdown(old.Get(), SHUT_WR); // who stands in a send on it goes on with the new one
}

bool MyArqSendCB::AdoptSocket(int pingSocket)
{
    const int32_t current = m_chooser.Current();
    if (m_bOwnsSockets && m_holders[current].IsValid()) {
        if (dup2(pingSocket, m_sockets[current].Load()) < 0) {
            perror("dup2 failed");
            return false;
        }
    } else {
        SharedSocket duplicate(dup(pingSocket));
        if (!duplicate.IsValid()) {
            perror("dup failed");
            return false;
        }
        SetSocket(current, std::move(duplicate));
        m_bOwnsSockets = true;
    }
    m_nAdopted = pingSocket;
    return true;
}

int MyArqSendCB::SendData(PacketBuffer* packet)
{
    if (!m_bIsAlive) {
        if (!m_bHasLeft)
            fprintf(stderr, "SendData:: m_bIsAlive is false\n");
        return 1;
    }
    m_owner.m_nTxPackets.Add(1);
    const int sent = SendDatagram(Target(), *packet);
    if (sent >= 0)
        m_owner.m_nTxBytes.Add(static_cast<uint32_t>(sent));
    m_chooser.Advance();
    if (sent >= 0)
        return 1;
    if (!m_bHasLeft)
        perror("SendData failed");
    return 0;
}

int32_t MyArqSendCB::SendUnlessWaiting(PacketBuffer* const* packets, int32_t count)
{
    int32_t done = 0;
    while (done < count) {
        const TrainResult result = SendSome(packets + done, count - done);
        done += result.taken;
        if (result.end == TrainEnd::WouldWait)
            break;
        if (result.end == TrainEnd::Refused)
            (void)SendData(packets[done++]);
    }
    return done;
}

TrainResult MyArqSendCB::SendSome(PacketBuffer* const* packets, int32_t count)
{
    if (SENDS_ARE_PLAIN)
        return { .end = TrainEnd::WouldWait };
    if (!m_bIsAlive)
        return { .end = TrainEnd::Refused };
    if (m_chooser.Count() > 1)
        return SendInTurn(*packets[0]);
    const TrainResult result = SendTrains(Target(), packets, count, m_refusals);
    CountSent(result.taken, result.bytes);
    return result;
}

// Over several sockets datagrams go one by one, each from the next socket.
TrainResult MyArqSendCB::SendInTurn(const PacketBuffer& packet)
{
    const int sent = SendDatagram(Target(), packet, MSG_DONTWAIT);
    if (sent < 0)
        return { .end = errno == EAGAIN ? TrainEnd::WouldWait : TrainEnd::Refused };
    CountSent(1, static_cast<size_t>(sent));
    m_chooser.Advance();
    return { .taken = 1 };
}

void MyArqSendCB::CountSent(int32_t packets, size_t bytes)
{
    m_owner.m_nTxPackets.Add(static_cast<uint64_t>(packets));
    m_owner.m_nTxBytes.Add(static_cast<uint32_t>(bytes));
}

void MyArqSendCB::SendStop()
{
    (void)SendDatagram(Target(), STOP_MESSAGE, sizeof(STOP_MESSAGE), MSG_DONTWAIT);
    m_chooser.Advance();
}

void MyArqSendCB::Leave()
{
    m_bHasLeft = true;
    m_bIsAlive = false;
    CutOff();
}

// A full send buffer is waited for in the kernel until half of it is empty, on a slow link for half a minute.
// Shutting the socket down ends that wait.
void MyArqSendCB::CutOff()
{
    if (!m_bOwnsSockets || m_nAdopted >= 0)
        return;
    for (const SharedSocket& socket : m_holders) {
        if (socket.IsValid() && !socket.IsShared())
            (void)shutdown(socket.Get(), SHUT_WR); // says "not connected", and does it all the same
    }
}

void MyArqSendCB::SetSocket(int32_t index, SharedSocket socket)
{
    m_sockets[index].Store(socket.Get());
    m_holders[index] = std::move(socket);
}

DatagramTarget MyArqSendCB::Target() const
{
    DatagramTarget target;
    target.fd = m_sockets[m_chooser.Current()].Load();
    target.address.sin_family = AF_INET;
    target.address.sin_port = m_usPortNet;
    target.address.sin_addr.s_addr = m_nAddressNet;
    target.isConnected = m_bIsConnected;
    return target;
}

int MyArqSendCB::SharedSocketKey() const
{
    if (!m_bIsAlive || m_bIsConnected || m_chooser.Count() > 1)
        return -1;
    const int adopted = m_nAdopted;
    return adopted >= 0 ? adopted : m_sockets[0].Load();
}
