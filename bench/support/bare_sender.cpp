#include "bare_sender.h"

#include <sys/socket.h>

#include <ctime>

#include "base/unique_fd.h"
#include "media.h"
#include "udp.h"

namespace {

int64_t ThreadCpuNs()
{
    constexpr int64_t NS_PER_S = 1000000000;
    timespec now {};
    (void)clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return now.tv_sec * NS_PER_S + now.tv_nsec;
}

} // namespace

BareSender::BareSender(Outlet& outlet, const Habit& habit, int32_t poolSize)
    : m_habit(habit),
      m_pPool(PacketBufferPool::createDefault(static_cast<uint32_t>(poolSize)))
{
    const uint16_t port = FreePort();
    outlet.Open(habit.askers, port);
    for (int32_t i = 0; i < habit.askers; ++i) {
        sockaddr_in to = LoopbackAddress(port);
        to.sin_addr = outlet.AddressOf(i);
        m_destinations.push_back(to);
    }
    m_thread = std::thread([this] { Run(); });
}

BareSender::~BareSender()
{
    m_bEnd = true;
    SendOnce();
    m_thread.join();
}

void BareSender::SendOnce()
{
    m_nBatches.fetch_add(1);
    m_nBatches.notify_one();
}

void BareSender::Run()
{
    const UniqueFd sender(socket(AF_INET, SOCK_DGRAM, 0));
    for (uint64_t done = 0; !m_bEnd; ++done) {
        m_nBatches.wait(done);
        const int64_t before = ThreadCpuNs();
        for (const sockaddr_in& to : m_destinations) {
            for (uint16_t i = 0; i < m_habit.numbers; ++i)
                (void)sendto(sender.Get(), m_pPool->get()->Data(), sizeof(MediaDatagram), 0,
                    reinterpret_cast<const sockaddr*>(&to), sizeof(to));
        }
        m_nCpuNs += ThreadCpuNs() - before;
        m_nSent += m_habit.Datagrams();
    }
}
