#include "replicator/socket_listener.h"

#include <linux/sock_diag.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <utility>

#include "arq/wire.h"
#include "pacing/ms_clock.h"

namespace {

// A request may claim up to 65535 sequence numbers, far more than its datagram holds. They are read as
// claimed: behind the last slice there is room for the longest list, so that this never leaves the pool.
constexpr uint32_t POOL_TAIL_BYTES = 131072;
static_assert(POOL_TAIL_BYTES >= LONGEST_REQUEST_LIST_BYTES);

// Room for what comes while the listen thread waits for its turn on a busy
// machine. The kernel may grant less.
constexpr int WANTED_RECEIVE_BUFFER_BYTES = 524288;

void WidenReceiveBuffer(int fd)
{
    int bytes = 0;
    socklen_t size = sizeof(bytes);
    if (getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, &size) != 0 || bytes >= WANTED_RECEIVE_BUFFER_BYTES)
        return;
    bytes = WANTED_RECEIVE_BUFFER_BYTES;
    (void)setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof(bytes)); // it also works with what there was
}

// Kernel memory that unread datagrams take up; 0 when the system does not tell.
uint32_t WaitingBytes(int fd)
{
    uint32_t info[SK_MEMINFO_VARS] = {};
    socklen_t bytes = sizeof(info);
    return getsockopt(fd, SOL_SOCKET, SO_MEMINFO, info, &bytes) == 0 ? info[SK_MEMINFO_RMEM_ALLOC] : 0;
}

sockaddr_in Address(in_addr_t addressNet, uint16_t port)
{
    sockaddr_in address {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = addressNet;
    return address;
}

} // namespace

SocketListener::SocketListener(SharedSocket socket, uint16_t port, bool& ok, uint32_t poolSize)
    : m_socket(std::move(socket)),
      m_usPort(port),
      m_pool(PacketBufferPool::create(poolSize, PacketBufferPool::SLICE_BYTES, POOL_TAIL_BYTES)),
      m_batch(m_pool.get())
{
    if (!m_pool) {
        ok = false;
        fprintf(stderr, "SocketListener: ERROR: PacketBufferInit failed!\n");
    }
}

void SocketListener::Init(bool& ok)
{
    if (m_bDuplicateMode) {
        InitDuplicate(ok);
        return;
    }
    if (!m_socket.IsValid()) {
        m_socket = SharedSocket(socket(AF_INET, SOCK_DGRAM, 0));
        m_bOwnsSocket = true;
        if (!m_socket.IsValid()) {
            ok = false;
            return;
        }
    }
    const int on = 1;
    if (setsockopt(Socket(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0) {
        fprintf(stderr, "SocketListener: setsockopt(SO_REUSEADDR) failed on port %d\n", m_usPort);
        ok = false;
    }
    WidenReceiveBuffer(Socket());
    const sockaddr_in local = Address(htonl(INADDR_ANY), m_usPort);
    if (bind(Socket(), reinterpret_cast<const sockaddr*>(&local), sizeof(local)) == 0) {
        fprintf(stderr, "SocketListener: sock bound to port %d\n", m_usPort);
    } else {
        fprintf(stderr, "SocketListener: bind failed on port %d\n", m_usPort);
        ok = false;
    }
}

void SocketListener::InitDuplicate(bool& ok)
{
    if (!m_socket.IsValid()) {
        ok = false;
        return;
    }
    const sockaddr_in self = Address(htonl(INADDR_LOOPBACK), m_usPort);
    if (sendto(Socket(), "", 0, 0, reinterpret_cast<const sockaddr*>(&self), sizeof(self)) < 0)
        fprintf(stderr, "cannot send data\n");
    const int old = Socket();
    SharedSocket duplicate(dup(old));
    if (!duplicate.IsValid()) {
        ok = false;
        return;
    }
    fprintf(stderr, "New socket %d from %d\n", duplicate.Get(), old);
    m_socket = std::move(duplicate);
    m_bOwnsSocket = true;
}

bool SocketListener::Receive()
{
    if (!m_batch.HasNext())
        Read();
    if (!m_batch.HasNext())
        return false;
    const DatagramBatch::Datagram datagram = m_batch.Next();
    (void)OnPacket(datagram.packet, datagram.addressNet, datagram.portNet);
    return true;
}

void SocketListener::Read()
{
    m_batch.Read(Socket());
    if (!m_batch.WasFull())
        m_crowd.OnEmpty();
    else if (m_crowd.OnArrivals(static_cast<uint32_t>(m_batch.Count())))
        m_crowd.OnLook(WaitingBytes(Socket()), GetSteadyMs());
}
