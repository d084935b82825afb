#include "source.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "clock.h"
#include "udp.h"
#include "wire.h"

namespace {

constexpr uint64_t BATCH = 32;
constexpr useconds_t TURN_US = 300;
constexpr double LONGEST_DEBT_SECONDS = 0.01; // what was late for longer is not made up for

} // namespace

Source::Source(const sockaddr_in& input, double perSecond)
    : m_input(input),
      m_perSecond(perSecond),
      m_thread(&Source::Run, this)
{
}

Source::~Source()
{
    m_bEnd = true;
    m_thread.join();
}

void Source::Stop()
{
    m_bWanted = false;
    while (m_bSending)
        usleep(TURN_US);
}

void Source::Confirm(uint64_t number, uint64_t oldestMissing)
{
    m_nConfirmed = number;
    m_nOldestMissing = oldestMissing;
}

void Source::Run()
{
    double due = 0; // packets that the rate owes
    double last = Now();
    while (!m_bEnd) {
        const double now = Now();
        due = std::min(due + (now - last) * m_perSecond, m_perSecond * LONGEST_DEBT_SECONDS);
        last = now;
        m_bSending = true;
        const uint64_t count = m_bWanted ? std::min({ static_cast<uint64_t>(due), Allowed(), BATCH }) : 0;
        if (count > 0)
            SendSome(count);
        m_bSending = false;
        due -= static_cast<double>(count);
        if (count < BATCH)
            usleep(TURN_US);
    }
}

uint64_t Source::Allowed() const
{
    const uint64_t limit = std::min(m_nConfirmed + MOST_AHEAD, m_nOldestMissing + OLDEST_MISSING);
    return limit > m_nSent ? limit - m_nSent : 0;
}

void Source::SendSome(uint64_t count)
{
    static const Udp from(Address("0.0.0.0", 0));
    static uint8_t data[BATCH][LARGEST_MEDIA];
    mmsghdr messages[BATCH] = {};
    iovec parts[BATCH];
    const uint64_t first = m_nSent + 1;
    for (uint64_t i = 0; i < count; ++i) {
        parts[i] = { data[i], MakeMedia(first + i, data[i]) };
        messages[i].msg_hdr.msg_iov = &parts[i];
        messages[i].msg_hdr.msg_iovlen = 1;
        messages[i].msg_hdr.msg_name = const_cast<sockaddr_in*>(&m_input);
        messages[i].msg_hdr.msg_namelen = sizeof(m_input);
    }
    m_nSent += count;
    for (uint64_t sent = 0; sent < count;) {
        const int more = sendmmsg(from.Get(), messages + sent, static_cast<unsigned>(count - sent), 0);
        if (more < 0)
            Die("sendmmsg");
        sent += static_cast<uint64_t>(more);
    }
}
