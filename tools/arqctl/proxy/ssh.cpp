#include "arqctl/proxy/ssh.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "arqctl/proxy/child_process.h"
#include "common/clock.h"

namespace arqctl {

namespace {

constexpr int SSH_FAILED = 255; // ssh's own status; a command over there rarely has it
constexpr int REAP_TURN_MS = 5;

// A remote command on its way.
class RemoteCommand {
public:
    RemoteCommand(ChildProcess& child, const std::string& input, RemoteRun& run)
        : m_child(child),
          m_input(input),
          m_run(run)
    {
    }

    // False when time is over.
    bool Finish(int64_t deadlineUs)
    {
        while (m_child.output.IsValid() || m_child.errors.IsValid()) {
            if (common::NowUs() >= deadlineUs)
                return false;
            Wait(deadlineUs);
            Feed();
            Drain(m_child.output, m_run.output);
            Drain(m_child.errors, m_run.errors);
        }
        for (; m_child.IsRunning(); (void)poll(nullptr, 0, REAP_TURN_MS))
            if (common::NowUs() >= deadlineUs)
                return false;
        return true;
    }

private:
    void Wait(int64_t deadlineUs) const
    {
        pollfd waiting[] = { { m_child.output.Get(), POLLIN, 0 }, { m_child.errors.Get(), POLLIN, 0 },
            { m_child.input.Get(), POLLOUT, 0 } };
        const int64_t leftMs = (deadlineUs - common::NowUs()) / common::US_PER_MS + 1;
        (void)poll(waiting, 3, static_cast<int>(std::clamp<int64_t>(leftMs, 0, 60'000)));
    }

    void Feed()
    {
        if (!m_child.input.IsValid())
            return;
        const size_t left = m_input.size() - m_nFed;
        const ssize_t count = left == 0 ? 0 : write(m_child.input.Get(), m_input.data() + m_nFed, left);
        if (count < 0 && (errno == EAGAIN || errno == EINTR))
            return;
        m_nFed += static_cast<size_t>(std::max<ssize_t>(count, 0));
        if (count <= 0 || m_nFed == m_input.size())
            m_child.input.Reset(); // all of it, or it is read no further
    }

    // One piece; what is too much is thrown away.
    static void Drain(UniqueFd& fd, std::string& text)
    {
        char bytes[4096];
        const ssize_t count = fd.IsValid() ? read(fd.Get(), bytes, sizeof(bytes)) : 0;
        if (count > 0)
            text.append(bytes, std::min(static_cast<size_t>(count), LONGEST_REMOTE_OUTPUT - text.size()));
        else if (count == 0 || (errno != EAGAIN && errno != EINTR))
            fd.Reset();
    }

    ChildProcess& m_child;
    const std::string& m_input;
    RemoteRun& m_run;
    size_t m_nFed = 0;
};

// While it lives, a pipe that nobody reads gives an error and no signal.
class NoBrokenPipe {
public:
    NoBrokenPipe()
    {
        struct sigaction ignore {};
        ignore.sa_handler = SIG_IGN;
        (void)sigaction(SIGPIPE, &ignore, &m_before);
    }
    ~NoBrokenPipe() { (void)sigaction(SIGPIPE, &m_before, nullptr); }
    NoBrokenPipe(const NoBrokenPipe&) = delete;
    NoBrokenPipe& operator=(const NoBrokenPipe&) = delete;

private:
    struct sigaction m_before {};
};

} // namespace

std::vector<std::string> SshWords()
{
    const char* const text = getenv("ARQCTL_SSH");
    std::vector<std::string> words = SshCommand(text ? text : "");
    const std::string timeout = "ConnectTimeout=" + std::to_string(SSH_CONNECT_SECONDS);
    for (const char* const setting : { "BatchMode=yes", timeout.c_str(), "ServerAliveInterval=5",
             "ServerAliveCountMax=3", "ControlMaster=no", "ControlPath=none", "LogLevel=INFO" })
        words.insert(words.end(), { "-o", setting });
    words.insert(words.end(), { "-a", "-x", "-T" });
    return words;
}

Trouble StartTrouble(int error)
{
    const std::string program = Printable(SshWords().front());
    if (error == ENOENT)
        return { "there is no program " + program,
            "install openssh-client, or name another with ARQCTL_SSH" };
    return { "the program " + program + " cannot be started: " + strerrordesc_np(error),
        "see that it may be run, and that ARQCTL_SSH is right" };
}

RemoteRun RunRemote(const std::string& host, const std::vector<std::string>& words, const std::string& input,
    int64_t patienceUs)
{
    RemoteRun run;
    std::string command;
    for (const std::string& word : words)
        command += (command.empty() ? "" : " ") + ShellQuoted(word);
    std::vector<std::string> all = SshWords();
    all.insert(all.end(), { "--", host, command });
    const NoBrokenPipe noBrokenPipe;
    ChildProcess child;
    const int error = child.Start(all);
    const int64_t deadlineUs = common::NowUs() + patienceUs + SSH_CONNECT_SECONDS * common::US_PER_SECOND;
    if (error != 0) {
        run.failure = Failure::NoSsh;
        run.trouble = StartTrouble(error);
    } else if (!RemoteCommand(child, input, run).Finish(deadlineUs)) {
        run.failure = Failure::NoAnswer;
        run.trouble = { "no answer in time from " + host, "try again, or with a longer --timeout" };
    } else if ((run.status = child.Status()) == SSH_FAILED) {
        run.failure = Failure::NoWay;
        run.trouble = SshTrouble(host, run.errors);
    }
    return run;
}

} // namespace arqctl
