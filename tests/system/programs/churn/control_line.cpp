#include "control_line.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "clock.h"
#include "udp.h"

namespace {

constexpr timeval LONGEST_REPLY { 300, 0 }; // a proxy that stands still ends the run

} // namespace

ControlLine::ControlLine(std::string path) : m_path(std::move(path)), m_thread(&ControlLine::Run, this) {}

ControlLine::~ControlLine()
{
    {
        const std::lock_guard lock(m_mutex);
        m_bRunning = false;
    }
    m_changed.notify_one();
    m_thread.join();
}

void ControlLine::Post(std::string command, Handler handler)
{
    {
        const std::lock_guard lock(m_mutex);
        m_waiting.push_back({ std::move(command), std::move(handler) });
    }
    m_changed.notify_one();
}

void ControlLine::Poll()
{
    std::vector<Job> done;
    {
        const std::lock_guard lock(m_mutex);
        done.swap(m_done);
    }
    for (const Job& job : done)
        job.handler(job.text);
}

double ControlLine::SlowestSeconds()
{
    const std::lock_guard lock(m_mutex);
    return m_slowestSeconds;
}

void ControlLine::Run()
{
    std::unique_lock lock(m_mutex);
    while (true) {
        m_changed.wait(lock, [this] { return !m_bRunning || !m_waiting.empty(); });
        if (!m_bRunning)
            return;
        Job job = std::move(m_waiting.front());
        m_waiting.pop_front();
        lock.unlock();
        const double began = Now();
        job.text = Ask(job.text);
        lock.lock();
        m_slowestSeconds = std::max(m_slowestSeconds, Now() - began);
        m_done.push_back(std::move(job));
    }
}

std::string ControlLine::Ask(const std::string& command) const
{
    sockaddr_un address {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, m_path.c_str(), sizeof(address.sun_path) - 1);
    const int client = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    char reply[65536];
    (void)setsockopt(client, SOL_SOCKET, SO_RCVTIMEO, &LONGEST_REPLY, sizeof(LONGEST_REPLY));
    if (connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0)
        Die("connect");
    if (send(client, command.data(), command.size(), MSG_NOSIGNAL) < 0)
        Die("send");
    const ssize_t size = recv(client, reply, sizeof(reply), 0);
    if (size <= 0)
        Die("a reply");
    close(client);
    return { reply, static_cast<size_t>(size) };
}
