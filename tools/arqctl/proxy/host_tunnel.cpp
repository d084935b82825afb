#include "arqctl/proxy/host_tunnel.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "arqctl/proxy/ssh.h"

namespace arqctl {

namespace {

constexpr size_t MOST_SAID = 4000;
constexpr size_t LONGEST_SAID_LINE = 1000;
// ssh runs its LocalCommand when the login stands and all local ends listen.
constexpr std::string_view UP_WORD = "arqctl-tunnel-is-up";

// ssh parts the two ends by a colon, and replaces what begins with a percent sign.
std::string TunnelEnd(std::string_view path)
{
    std::string text;
    for (const char letter : path) {
        if (letter == ':' || letter == '\\')
            text += '\\';
        if (letter == '%')
            text += '%';
        text += letter;
    }
    return text;
}

} // namespace

HostTunnel::HostTunnel(std::string host) : m_host(std::move(host)) {}

std::string HostTunnel::LocalPath(const std::string& remotePath)
{
    auto found = std::find(m_remotePaths.begin(), m_remotePaths.end(), remotePath);
    if (found == m_remotePaths.end()) {
        m_ssh.End(); // started again with one end more
        m_isRunning = false;
        m_remotePaths.push_back(remotePath);
        found = m_remotePaths.end() - 1;
    }
    const int error = m_folder.Make();
    if (error != 0)
        Fail(Failure::NoSsh,
            { std::string("no folder could be made for the tunnel: ") + strerrordesc_np(error),
                "name one that can be written to with TMPDIR" });
    return m_folder.Path() + "/" + std::to_string(found - m_remotePaths.begin());
}

std::vector<std::string> HostTunnel::Words() const
{
    std::vector<std::string> words = SshWords();
    words.insert(words.end(),
        { "-N", "-o", "ExitOnForwardFailure=yes", "-o", "StreamLocalBindMask=0177", "-o",
            "StreamLocalBindUnlink=yes", "-o", "PermitLocalCommand=yes", "-o",
            "LocalCommand=echo " + std::string(UP_WORD) + " >&2" });
    for (size_t i = 0; i < m_remotePaths.size(); ++i)
        words.insert(words.end(),
            { "-L",
                TunnelEnd(m_folder.Path() + "/" + std::to_string(i)) + ":" + TunnelEnd(m_remotePaths[i]) });
    words.insert(words.end(), { "--", m_host });
    return words;
}

void HostTunnel::Start()
{
    if (m_isRunning || m_folder.Path().empty())
        return;
    m_line.clear();
    m_said.clear();
    m_isUp = false;
    m_nRefusals = 0;
    const int error = m_ssh.Start(Words());
    if (error != 0)
        return Fail(Failure::NoSsh, StartTrouble(error));
    m_ssh.input.Reset();
    m_isRunning = true;
}

void HostTunnel::Look()
{
    if (!m_isRunning)
        return;
    const bool hasEnded = !m_ssh.IsRunning(); // asked first: what it said last is there then
    char bytes[4096];
    ssize_t count = 0;
    for (int piece = 0; piece < 16 && (count = read(m_ssh.errors.Get(), bytes, sizeof(bytes))) > 0; ++piece)
        for (const char letter : std::string_view(bytes, static_cast<size_t>(count))) {
            if (letter == '\n')
                TakeLine(std::exchange(m_line, {}));
            else if (m_line.size() < LONGEST_SAID_LINE)
                m_line += letter;
        }
    if (hasEnded)
        Fail(Failure::NoWay, SshTrouble(m_host, m_said + m_line));
}

void HostTunnel::TakeLine(std::string_view line)
{
    if (line.starts_with(UP_WORD)) {
        m_isUp = true;
        m_failure = Failure::None;
        return;
    }
    m_nRefusals += RefusedChannels(line);
    m_said.append(line).append("\n");
    if (m_said.size() > MOST_SAID)
        m_said.erase(0, m_said.size() - MOST_SAID);
}

void HostTunnel::GiveUp()
{
    m_ssh.End();
    Fail(Failure::NoWay,
        { "the login to " + m_host + " takes too long", "try it by hand: 'ssh " + m_host + "'" });
}

void HostTunnel::Refuse()
{
    m_ssh.End();
    Fail(Failure::NoWay,
        { m_host + " lets us in, but refuses to forward the control socket",
            "allow it in its sshd_config: AllowStreamLocalForwarding yes (or local)" });
}

void HostTunnel::Fail(Failure failure, Trouble trouble)
{
    m_failure = failure;
    m_trouble = std::move(trouble);
    m_isRunning = m_isUp = false;
}

bool HostTunnel::TakeRefusal()
{
    if (m_nRefusals == 0)
        return false;
    --m_nRefusals;
    return true;
}

} // namespace arqctl
