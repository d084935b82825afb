#include "arqctl/core/ssh_texts.h"

#include <algorithm>

namespace arqctl {

namespace {

constexpr size_t LONGEST_LINE = 200;

// "%" stands for the host.
struct KnownTrouble {
    std::string_view sign;
    const char* problem;
    const char* advice;
};

// The first whose sign is there counts. ssh has no translations: these are its words on every machine.
constexpr KnownTrouble KNOWN_TROUBLES[] = {
    { "IDENTIFICATION HAS CHANGED", "the host key of % has changed: it may be another machine",
        "ask who runs it; if the new key is right, remove the old one with 'ssh-keygen -R %'" },
    { "Host key verification failed", "the host key of % is not known here",
        "log in once by hand with 'ssh %' and compare the key, or put it into ~/.ssh/known_hosts" },
    { "Permission denied", "% refuses the login",
        "ssh asks for no password here: load your key into ssh-agent, or name it: ARQCTL_SSH='ssh -i KEY'" },
    { "Too many authentication failures", "% refuses the login: too many keys were tried",
        "name the right one: ARQCTL_SSH='ssh -o IdentitiesOnly=yes -i KEY'" },
    { "Could not resolve hostname", "there is no host named %",
        "correct the name, or give it an entry in ~/.ssh/config" },
    { "Connection refused", "no ssh server answers on %",
        "start sshd there, or name its port: ARQCTL_SSH='ssh -p PORT'" },
    { "timed out", "% does not answer", "see that it runs, and that no firewall is in between" },
    { "No route to host", "there is no way to %", "see that it runs, and that the network reaches it" },
    { "Network is unreachable", "there is no way to %", "see that this machine's network is up" },
    { "Could not request local forwarding", "ssh could not make its socket here",
        "see that TMPDIR names a folder that takes sockets" },
};

std::string WithHost(std::string_view text, const std::string& host)
{
    std::string all;
    for (const char letter : text)
        all += letter == '%' ? host : std::string(1, letter);
    return all;
}

// The last line that says something.
std::string_view LastLine(std::string_view text)
{
    const size_t end = text.find_last_not_of("\r\n ");
    if (end == std::string_view::npos)
        return {};
    text = text.substr(0, end + 1);
    const size_t feed = text.find_last_of('\n');
    return feed == std::string_view::npos ? text : text.substr(feed + 1);
}

} // namespace

bool IsSshHost(std::string_view host)
{
    constexpr size_t LONGEST_NAME = 255;
    const auto isPlain = [](char letter) { return letter > ' ' && letter < 0x7F && letter != '/'; };
    return !host.empty() && host.size() <= LONGEST_NAME && host.front() != '-'
        && std::all_of(host.begin(), host.end(), isPlain);
}

std::vector<std::string> SshCommand(std::string_view text)
{
    std::vector<std::string> words;
    while (true) {
        text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
        if (text.empty())
            break;
        const size_t end = std::min(text.find(' '), text.size());
        words.emplace_back(text.substr(0, end));
        text.remove_prefix(end);
    }
    if (words.empty())
        words.emplace_back("ssh");
    return words;
}

std::string ShellQuoted(std::string_view word)
{
    std::string quoted = "'";
    for (const char letter : word)
        quoted += letter == '\'' ? "'\\''" : std::string(1, letter);
    return quoted + "'";
}

std::string Printable(std::string_view text)
{
    std::string line(text.substr(0, LONGEST_LINE));
    const auto isControl
        = [](char letter) { return static_cast<unsigned char>(letter) < ' ' || letter == 0x7F; };
    std::replace_if(line.begin(), line.end(), isControl, '?');
    return line;
}

Trouble SshTrouble(const std::string& host, std::string_view errors)
{
    for (const KnownTrouble& known : KNOWN_TROUBLES)
        if (errors.find(known.sign) != std::string_view::npos)
            return { WithHost(known.problem, host), WithHost(known.advice, host) };
    const std::string last = Printable(LastLine(errors));
    return { "ssh to " + host + " ended" + (last.empty() ? " without a word" : ": " + last),
        "try it by hand: 'ssh -o BatchMode=yes " + host + " true' must work" };
}

int RefusedChannels(std::string_view errors)
{
    constexpr std::string_view SIGN = ": open failed: ";
    int count = 0;
    for (size_t at = errors.find(SIGN); at != std::string_view::npos;
         at = errors.find(SIGN, at + SIGN.size()))
        ++count;
    return count;
}

} // namespace arqctl
