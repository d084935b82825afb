#include "bare_answerer.h"

#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>

#include <ctime>

#include "arq/wire.h"
#include "media.h"
#include "udp.h"

namespace {

constexpr unsigned BATCH = 16;
constexpr int WAIT_MS = 250;

sockaddr_in AnyAddress(uint16_t port)
{
    sockaddr_in address = LoopbackAddress(port);
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    return address;
}

} // namespace

BareAnswerer::BareAnswerer(uint16_t port, int32_t poolSize)
    : m_usPort(port),
      m_usRequestPort(FreePort()),
      m_requests(BoundSocket(AnyAddress(m_usRequestPort))),
      m_other(BoundSocket(AnyAddress(FreePort()))),
      m_sender(socket(AF_INET, SOCK_DGRAM, 0)),
      m_pPool(PacketBufferPool::createDefault(static_cast<uint32_t>(poolSize))),
      m_thread([this] { Run(); })
{
}

BareAnswerer::~BareAnswerer()
{
    m_bEnd = true;
    m_thread.join();
}

int64_t BareAnswerer::CpuNs()
{
    constexpr int64_t NS_PER_S = 1000000000;
    clockid_t clock {};
    timespec spent {};
    (void)pthread_getcpuclockid(m_thread.native_handle(), &clock);
    (void)clock_gettime(clock, &spent);
    return spent.tv_sec * NS_PER_S + spent.tv_nsec;
}

void BareAnswerer::Run()
{
    while (!m_bEnd) {
        pollfd wanted[] = { { m_requests.Get(), POLLIN, 0 }, { m_other.Get(), POLLIN, 0 } };
        if (poll(wanted, 2, WAIT_MS) > 0)
            Serve();
    }
}

void BareAnswerer::Serve()
{
    static uint8_t s_requests[BATCH][PacketBufferPool::SLICE_BYTES / 4]; // one answerer at a time
    sockaddr_in sources[BATCH] {};
    iovec pieces[BATCH] {};
    mmsghdr messages[BATCH] {};
    for (unsigned i = 0; i < BATCH; ++i) {
        pieces[i] = { s_requests[i], sizeof(s_requests[i]) };
        messages[i].msg_hdr.msg_name = &sources[i];
        messages[i].msg_hdr.msg_namelen = sizeof(sources[i]);
        messages[i].msg_hdr.msg_iov = &pieces[i];
        messages[i].msg_hdr.msg_iovlen = 1;
    }
    const int count = recvmmsg(m_requests.Get(), messages, BATCH, MSG_DONTWAIT, nullptr);
    for (int i = 0; i < count; ++i)
        Answer(s_requests[i], sources[i].sin_addr);
}

void BareAnswerer::Answer(const uint8_t* request, in_addr to)
{
    sockaddr_in destination = AnyAddress(m_usPort);
    destination.sin_addr = to;
    const uint16_t numbers = reinterpret_cast<const ArqRequest*>(request)->seqCount.Get();
    for (uint16_t i = 0; i < numbers; ++i) {
        (void)sendto(m_sender.Get(), m_pPool->get()->Data(), sizeof(MediaDatagram), 0,
            reinterpret_cast<const sockaddr*>(&destination), sizeof(destination));
    }
}
