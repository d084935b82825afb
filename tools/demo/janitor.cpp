#include "demo/janitor.h"

#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>

#include <cerrno>
#include <csignal>

namespace demo {

namespace {

[[noreturn]] void WaitAndTidy(
    int life, int terminal, const std::string& goodbye, const std::vector<std::string>& files)
{
    (void)setpgid(0, 0); // Ctrl-C is for the demo
    sigset_t all;
    sigfillset(&all);
    (void)pthread_sigmask(SIG_SETMASK, &all, nullptr);
    char byte;
    while (read(life, &byte, 1) < 0 && errno == EINTR) {}
    if (terminal >= 0)
        (void)!write(terminal, goodbye.data(), goodbye.size());
    for (const std::string& file : files)
        (void)unlink(file.c_str());
    _exit(0);
}

} // namespace

Janitor::~Janitor()
{
    Finish();
}

void Janitor::Start(int terminal, const std::string& goodbye, const std::vector<std::string>& files)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return;
    UniqueFd reading(ends[0]), writing(ends[1]);
    m_nPid = fork();
    if (m_nPid == 0) {
        writing.Reset();
        WaitAndTidy(reading.Get(), terminal, goodbye, files);
    }
    m_life = std::move(writing);
}

void Janitor::Finish()
{
    m_life.Reset();
    while (m_nPid > 0 && waitpid(m_nPid, nullptr, 0) < 0 && errno == EINTR) {}
    m_nPid = -1;
}

} // namespace demo
