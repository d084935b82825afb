#include "demo/child.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <initializer_list>

#include "demo/format.h"

namespace demo {

namespace {

constexpr size_t MOST_LINES = 500;

struct Pipe {
    UniqueFd reading, writing;

    bool Open()
    {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0)
            return false;
        reading = UniqueFd(ends[0]);
        writing = UniqueFd(ends[1]);
        return true;
    }
};

void MakeNonBlocking(const UniqueFd& fd)
{
    (void)fcntl(fd.Get(), F_SETFL, fcntl(fd.Get(), F_GETFL) | O_NONBLOCK);
}

// In the new process: as a shell would have started it, in a group of its own, and gone with its parent.
void BecomeOwn(pid_t parent)
{
    (void)setpgid(0, 0);
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent)
        _exit(127); // it went before we asked to go with it
    sigset_t none;
    sigemptyset(&none);
    (void)pthread_sigmask(SIG_SETMASK, &none, nullptr);
    for (const int number : { SIGPIPE, SIGTSTP })
        (void)signal(number, SIG_DFL);
}

[[noreturn]] void Run(const std::vector<std::string>& arguments)
{
    std::vector<char*> words;
    words.reserve(arguments.size() + 1);
    for (const std::string& argument : arguments)
        words.push_back(const_cast<char*>(argument.c_str()));
    words.push_back(nullptr);
    (void)execvp(words[0], words.data());
    (void)dprintf(STDERR_FILENO, "cannot run %s: %s\n", words[0], ErrorText(errno).c_str());
    _exit(127);
}

} // namespace

Child::~Child()
{
    Kill();
}

bool Child::Start(const std::vector<std::string>& arguments, Pipes pipes)
{
    Pipe messages, output, input;
    const UniqueFd nothing(open("/dev/null", O_RDWR | O_CLOEXEC));
    if (!messages.Open() || !output.Open() || !input.Open())
        return false;
    const bool hasData = pipes == Pipes::Data;
    const pid_t parent = getpid();
    m_nPid = fork();
    if (m_nPid < 0)
        return false;
    if (m_nPid == 0) {
        BecomeOwn(parent);
        (void)dup2(hasData ? input.reading.Get() : nothing.Get(), STDIN_FILENO);
        (void)dup2(hasData ? output.writing.Get() : messages.writing.Get(), STDOUT_FILENO);
        (void)dup2(messages.writing.Get(), STDERR_FILENO);
        Run(arguments);
    }
    (void)setpgid(m_nPid, m_nPid); // also here: whoever comes first
    m_messages = std::move(messages.reading);
    MakeNonBlocking(m_messages);
    if (hasData) {
        m_output = std::move(output.reading);
        m_input = std::move(input.writing);
        MakeNonBlocking(m_output);
        MakeNonBlocking(m_input);
    }
    return true;
}

void Child::Kill()
{
    if (m_nPid > 0 && !Status()) {
        (void)kill(-m_nPid, SIGKILL);
        (void)kill(m_nPid, SIGKILL);
        int status = 0;
        while (waitpid(m_nPid, &status, 0) < 0 && errno == EINTR) {}
        m_status = -SIGKILL;
    }
    ReadMessages();
}

void Child::ReadMessages()
{
    std::array<char, 4096> bytes;
    ssize_t count = 0;
    while (m_messages.IsValid() && (count = read(m_messages.Get(), bytes.data(), bytes.size())) != 0) {
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return;
        m_rest.append(bytes.data(), static_cast<size_t>(count));
        for (size_t end; (end = m_rest.find_first_of("\r\n")) != std::string::npos; m_rest.erase(0, end + 1))
            if (end > 0)
                m_lines.push_back(m_rest.substr(0, end));
        while (m_lines.size() > MOST_LINES)
            m_lines.pop_front();
    }
    m_messages.Reset();
}

std::vector<uint8_t> Child::ReadOutput()
{
    std::vector<uint8_t> bytes(1 << 18);
    const ssize_t count = m_output.IsValid() ? read(m_output.Get(), bytes.data(), bytes.size()) : 0;
    if (count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR))
        m_output.Reset();
    bytes.resize(count > 0 ? static_cast<size_t>(count) : 0);
    return bytes;
}

size_t Child::Write(std::span<const uint8_t> bytes)
{
    if (!m_input.IsValid() || bytes.empty())
        return 0;
    const ssize_t count = write(m_input.Get(), bytes.data(), bytes.size());
    if (count < 0 && errno != EAGAIN && errno != EINTR)
        m_input.Reset();
    return count > 0 ? static_cast<size_t>(count) : 0;
}

std::optional<int> Child::Status()
{
    int status = 0;
    if (!m_status && m_nPid > 0 && waitpid(m_nPid, &status, WNOHANG) == m_nPid)
        m_status = WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
    return m_status;
}

bool Child::HasSaid(const std::string& line) const
{
    return std::ranges::find(m_lines, line) != m_lines.end();
}

bool Child::HasSaid(const std::string& part, const std::string& end) const
{
    return std::ranges::any_of(m_lines,
        [&](const std::string& line) { return line.find(part) != std::string::npos && line.ends_with(end); });
}

std::string Child::LastLine() const
{
    return m_lines.empty() ? "it said nothing" : m_lines.back();
}

} // namespace demo
