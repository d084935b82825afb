#include "arqlink/relay/poller.h"

#include "arqlink/core/line.h"
#include "common/clock.h"

#include <algorithm>
#include <cerrno>
#include <sys/timerfd.h>
#include <system_error>

namespace arqlink {

namespace {

constexpr uint64_t ALARM = ~uint64_t { 0 };

} // namespace

bool Poller::Open(std::string& problem)
{
    m_epoll.Reset(epoll_create1(EPOLL_CLOEXEC));
    m_timer.Reset(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    if (m_epoll.IsValid() && m_timer.IsValid() && Add(m_timer.Get(), ALARM))
        return true;
    problem = "cannot wait for datagrams: " + std::generic_category().message(errno);
    return false;
}

bool Poller::Add(int fd, uint64_t tag)
{
    epoll_event event {};
    event.events = EPOLLIN;
    event.data.u64 = tag;
    return epoll_ctl(m_epoll.Get(), EPOLL_CTL_ADD, fd, &event) == 0;
}

// The timer is never read: once it has gone off it stays ready until it is set to another moment.
void Poller::SetAlarm(int64_t untilUs)
{
    const int64_t alarmUs = untilUs == NEVER ? 0 : std::max<int64_t>(untilUs, 1);
    if (alarmUs == m_nAlarmUs)
        return;
    itimerspec alarm {};
    alarm.it_value.tv_sec = alarmUs / common::US_PER_SECOND;
    alarm.it_value.tv_nsec = alarmUs % common::US_PER_SECOND * 1000;
    (void)timerfd_settime(m_timer.Get(), TFD_TIMER_ABSTIME, &alarm, nullptr); // fails for no time of ours
    m_nAlarmUs = alarmUs;
}

int Poller::Wait(int64_t untilUs)
{
    SetAlarm(untilUs);
    const int count = epoll_wait(m_epoll.Get(), m_events.data(), static_cast<int>(m_events.size()), -1);
    if (count <= 0)
        return 0; // a signal
    const auto end = std::remove_if(m_events.begin(), m_events.begin() + count,
        [](const epoll_event& event) { return event.data.u64 == ALARM; });
    return static_cast<int>(end - m_events.begin());
}

} // namespace arqlink
