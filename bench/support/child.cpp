#include "child.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include "machine_load.h"

namespace {

std::string ProcPath(pid_t pid)
{
    return "/proc/" + std::to_string(pid);
}

// Children that are stopped or busy would outlive this process if it just ended.
volatile std::sig_atomic_t s_stopAsked = 0;

void AskToStop(int)
{
    s_stopAsked = 1;
}

} // namespace

void GiveUp(const std::string& why)
{
    throw std::runtime_error(why);
}

int RunBenchmark(const std::function<void()>& body)
{
    try {
        body();
    } catch (const std::exception& failure) {
        fprintf(stderr, "%s\n", failure.what());
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}

void StopOnSignals()
{
    for (const int signal : { SIGINT, SIGTERM, SIGHUP })
        (void)std::signal(signal, AskToStop);
}

void StopIfAsked()
{
    if (s_stopAsked == 0 || gettid() != getpid())
        return;
    s_stopAsked = 0; // what is cleaned up on the way may sleep, too
    GiveUp("stopped by a signal");
}

Child::Child(const std::vector<std::string>& arguments) : m_nPid(-1)
{
    std::vector<char*> argv;
    for (const std::string& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    (void)posix_spawn_file_actions_init(&actions);
    for (const int fd : { STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO })
        (void)posix_spawn_file_actions_addopen(&actions, fd, "/dev/null", O_RDWR, 0);
    const int error = posix_spawn(&m_nPid, argv[0], &actions, nullptr, argv.data(), environ);
    (void)posix_spawn_file_actions_destroy(&actions);
    if (error != 0)
        GiveUp("cannot run " + arguments.front() + ": " + std::strerror(error));
}

Child::~Child()
{
    constexpr int POLLS = 100;
    constexpr useconds_t POLL_US = 10000;
    (void)kill(m_nPid, SIGTERM);
    for (int i = 0; i < POLLS && IsAlive(); ++i)
        (void)usleep(POLL_US);
    (void)kill(m_nPid, SIGKILL); // one that does not listen
    (void)waitpid(m_nPid, nullptr, 0);
}

int64_t Child::CpuNs() const
{
    const int64_t total = ProcessCpuNs(m_nPid);
    if (total == 0)
        GiveUp("this kernel keeps no /proc/PID/task/*/schedstat");
    return total;
}

int64_t Child::ResidentKib() const
{
    std::ifstream status(ProcPath(m_nPid) + "/status");
    std::string word;
    int64_t kib = 0;
    while (status >> word) {
        if (word == "VmRSS:") {
            status >> kib;
            break;
        }
    }
    return kib;
}

bool Child::IsAlive() const
{
    siginfo_t info {};
    return waitid(P_PID, static_cast<id_t>(m_nPid), &info, WEXITED | WNOHANG | WNOWAIT) == 0
        && info.si_pid == 0;
}

int Child::WaitForExit() const
{
    siginfo_t info {};
    if (waitid(P_PID, static_cast<id_t>(m_nPid), &info, WEXITED | WNOWAIT) != 0)
        GiveUp("cannot wait for a process");
    return info.si_code == CLD_EXITED ? info.si_status : -1;
}
