#include "arqctl/proxy/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <string_view>
#include <utility>

namespace arqctl {

namespace {

constexpr int END_TURN_MS = 5;
constexpr int END_TURNS = 200;

struct Pipe {
    UniqueFd readEnd;
    UniqueFd writeEnd;

    bool Open()
    {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0)
            return false;
        readEnd.Reset(ends[0]);
        writeEnd.Reset(ends[1]);
        return true;
    }
};

struct ChildPipes {
    Pipe input;
    Pipe output;
    Pipe errors;
    Pipe word; // closed by a successful exec, else the errno comes
};

// In the child: only calls that are safe between fork and exec.
[[noreturn]] void BecomeProgram(
    char* const* words, char* const* environment, const ChildPipes& pipes, pid_t parent)
{
    sigset_t none;
    (void)sigemptyset(&none);
    (void)pthread_sigmask(SIG_SETMASK, &none, nullptr);
    (void)signal(SIGPIPE, SIG_DFL);
    (void)setsid();
    (void)prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent)
        _exit(127); // it ended before the line above
    const bool isSet = dup2(pipes.input.readEnd.Get(), STDIN_FILENO) >= 0
        && dup2(pipes.output.writeEnd.Get(), STDOUT_FILENO) >= 0
        && dup2(pipes.errors.writeEnd.Get(), STDERR_FILENO) >= 0;
    if (isSet)
        execvpe(words[0], words, environment);
    const int error = errno;
    (void)!write(pipes.word.writeEnd.Get(), &error, sizeof(error));
    _exit(127);
}

// 0 when the program has begun.
int ErrorFrom(const UniqueFd& word)
{
    int error = 0;
    ssize_t count = 0;
    do
        count = read(word.Get(), &error, sizeof(error));
    while (count < 0 && errno == EINTR);
    return count == sizeof(error) ? error : 0;
}

void NeverWait(const UniqueFd& fd)
{
    (void)fcntl(fd.Get(), F_SETFL, O_NONBLOCK);
}

// The first three are taken by the child's own: a pipe must not be one of them.
bool IsAboveStandard(const ChildPipes& pipes)
{
    const std::array all { &pipes.input, &pipes.output, &pipes.errors, &pipes.word };
    return std::all_of(all.begin(), all.end(), [](const Pipe* pipe) {
        return pipe->readEnd.Get() > STDERR_FILENO && pipe->writeEnd.Get() > STDERR_FILENO;
    });
}

// With a null behind the last, as exec wants them.
std::vector<char*> PointersTo(std::vector<std::string>& texts)
{
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts)
        pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

// Ours, with a shell that reads plain commands: a service's user may have one that refuses all.
std::vector<std::string> ChildEnvironment()
{
    constexpr std::string_view SHELL = "SHELL=";
    std::vector<std::string> texts;
    for (char** each = environ; each && *each; ++each)
        if (!std::string_view(*each).starts_with(SHELL))
            texts.emplace_back(*each);
    texts.push_back(std::string(SHELL) + "/bin/sh");
    return texts;
}

} // namespace

int ChildProcess::Start(const std::vector<std::string>& words)
{
    End();
    ChildPipes pipes;
    if (!pipes.input.Open() || !pipes.output.Open() || !pipes.errors.Open() || !pipes.word.Open())
        return errno;
    if (!IsAboveStandard(pipes))
        return EBADF; // started with its standard output closed
    std::vector<std::string> texts = words;
    std::vector<std::string> variables = ChildEnvironment();
    const std::vector<char*> arguments = PointersTo(texts);
    const std::vector<char*> environment = PointersTo(variables);
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child < 0)
        return errno;
    if (child == 0)
        BecomeProgram(arguments.data(), environment.data(), pipes, parent);
    m_nPid = child;
    pipes.word.writeEnd.Reset();
    const int error = ErrorFrom(pipes.word.readEnd);
    if (error != 0) {
        End();
        return error;
    }
    input = std::move(pipes.input.writeEnd);
    output = std::move(pipes.output.readEnd);
    errors = std::move(pipes.errors.readEnd);
    for (const UniqueFd* fd : { &input, &output, &errors })
        NeverWait(*fd);
    return 0;
}

bool ChildProcess::IsRunning()
{
    int status = 0;
    if (m_nPid == 0)
        return false;
    const pid_t ended = waitpid(m_nPid, &status, WNOHANG);
    if (ended == 0 || (ended < 0 && errno == EINTR))
        return true;
    m_nPid = 0;
    if (ended > 0)
        m_nStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return false;
}

void ChildProcess::End()
{
    if (!IsRunning())
        return;
    // Its group is its own: helpers that it started end too.
    (void)kill(-m_nPid, SIGTERM);
    for (int turn = 0; turn < END_TURNS && IsRunning(); ++turn)
        (void)poll(nullptr, 0, END_TURN_MS);
    if (m_nPid == 0)
        return;
    (void)kill(-m_nPid, SIGKILL);
    (void)waitpid(m_nPid, nullptr, 0);
    m_nPid = 0;
}

} // namespace arqctl
