#include "arqctl/proxy/impair_files_ssh.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>

#include "arqctl/core/loss_settings.h"
#include "arqctl/proxy/control_path.h"
#include "common/clock.h"

namespace arqctl {

namespace {

constexpr int64_t SCRIPT_PATIENCE_US = 10 * common::US_PER_SECOND;
constexpr int LOCK_TURN_MS = 20;

// All get the toggle's path as $1 and a number of seconds as $2.
constexpr int LOCK_IS_HELD = 41;
constexpr int IS_NO_FILE = 42;
constexpr int WAS_NOT_TAKEN = 43;
constexpr auto HOLD_LOCK
    = R"(exec 9>>"$1.lock" && { flock -w "$2" 9 || exit 41; } && echo held && cat >/dev/null)";
constexpr auto AWAIT_NO_TOGGLE = R"(n=0
while [ -e "$1" ]; do n=$((n + 1)); [ $n -le $((10 * $2)) ] || exit 43; sleep 0.1; done)";
constexpr auto READ_SETTINGS = R"([ -e "$1.conf" ] || exit 0
[ -f "$1.conf" ] || exit 42
cat "$1.conf")";
constexpr auto WRITE_SETTINGS = R"(f=$(readlink -f "$1.conf") && t=$(mktemp "$f.XXXXXX") || exit 1
cat >"$t" && chmod 644 "$t" && mv -f "$t" "$f" && exit 0
rm -f "$t"; exit 1)";
constexpr auto MAKE_TOGGLE = R"(set -C
: >"$1" || exit 1
n=0
while [ -e "$1" ]; do n=$((n + 1)); [ $n -le $((10 * $2)) ] || break; sleep 0.1; done
[ -e "$1" ] && rm "$1" && exit 43
exit 0)";

std::string InSeconds(int64_t us)
{
    return std::to_string((us + common::US_PER_SECOND - 1) / common::US_PER_SECOND);
}

std::string FirstLine(const std::string& text)
{
    return Printable(text.substr(0, text.find('\n')));
}

} // namespace

SshImpairFiles::SshImpairFiles(std::string host, const std::string& folder, int instance)
    : m_host(std::move(host)),
      m_path(folder + "tx_proxy" + std::to_string(instance) + ".imp")
{
}

RemoteRun SshImpairFiles::Run(const char* script, const std::string& input, int64_t patienceUs) const
{
    return RunRemote(m_host, { "sh", "-c", script, "sh", m_path, InSeconds(patienceUs) }, input,
        patienceUs + SCRIPT_PATIENCE_US);
}

Trouble SshImpairFiles::TroubleOf(const RemoteRun& run) const
{
    if (!run.HasRun())
        return run.trouble;
    if (run.status == 0)
        return {};
    const std::string reason
        = run.errors.empty() ? "status " + std::to_string(run.status) : FirstLine(run.errors);
    return { "the files of the deliberate loss on " + m_host + " cannot be used: " + reason,
        "log in there as the proxy's user (root, as a rule)" };
}

Trouble SshImpairFiles::Lock(int64_t patienceUs)
{
    std::vector<std::string> words = SshWords();
    std::string command;
    for (const std::string& word : { std::string("sh"), std::string("-c"), std::string(HOLD_LOCK),
             std::string("sh"), m_path, InSeconds(patienceUs) })
        command += ShellQuoted(word) + " ";
    words.insert(words.end(), { "--", m_host, command });
    if (const int error = m_lock.Start(words); error != 0)
        return StartTrouble(error);
    const int64_t endUs = common::NowUs() + patienceUs + SCRIPT_PATIENCE_US;
    while (m_lock.IsRunning() && common::NowUs() < endUs) {
        pollfd waiting { m_lock.output.Get(), POLLIN, 0 };
        (void)poll(&waiting, 1, LOCK_TURN_MS);
        char bytes[16];
        if (read(m_lock.output.Get(), bytes, sizeof(bytes)) > 0)
            return {};
    }
    if (!m_lock.IsRunning() && m_lock.Status() == LOCK_IS_HELD)
        return { "another arqctl is switching the deliberate loss of this proxy", "wait until it is done" };
    m_lock.End();
    char bytes[1024];
    const ssize_t count = read(m_lock.errors.Get(), bytes, sizeof(bytes));
    const std::string reason(bytes, static_cast<size_t>(std::max<ssize_t>(count, 0)));
    return { "no lock on " + m_host + ": " + (reason.empty() ? "no answer in time" : FirstLine(reason)),
        "log in there as the proxy's user (root, as a rule); flock of util-linux has to be there" };
}

Trouble SshImpairFiles::AwaitNoToggle(int64_t patienceUs)
{
    const RemoteRun run = Run(AWAIT_NO_TOGGLE, "", patienceUs);
    if (run.HasRun() && run.status == WAS_NOT_TAKEN)
        return { m_path + " on " + m_host + " is there and no proxy removes it",
            "see with 'arqctl --via ssh:" + m_host + " instances' that it runs; then remove the file" };
    return TroubleOf(run);
}

Trouble SshImpairFiles::ReadSettings(std::string& text)
{
    RemoteRun run = Run(READ_SETTINGS, "", 0);
    if (run.HasRun() && (run.status == IS_NO_FILE || run.output.size() >= LONGEST_REMOTE_OUTPUT))
        return { m_path + ".conf on " + m_host + " is no file, or too large for the proxy",
            "move it out of the way" };
    text = std::move(run.output);
    return TroubleOf(run);
}

Trouble SshImpairFiles::WriteSettings(const std::string& text)
{
    return TroubleOf(Run(WRITE_SETTINGS, text, 0));
}

Toggled SshImpairFiles::Toggle(int64_t patienceUs, Trouble& trouble)
{
    const RemoteRun run = Run(MAKE_TOGGLE, "", patienceUs);
    if (run.HasRun() && run.status == 0)
        return Toggled::Taken;
    trouble = TroubleOf(run);
    if (!run.HasRun() || run.status != WAS_NOT_TAKEN)
        return Toggled::Failed;
    trouble = { "the proxy did not take " + m_path + " on " + m_host + ", which is removed again",
        "see with 'arqctl --via ssh:" + m_host + " instances' that it runs, and that it may write there" };
    return Toggled::NotTaken;
}

std::unique_ptr<ImpairFiles> MakeImpairFiles(const Target& target, int instance)
{
    const std::string folder = RunFolderOf(target.ControlPath());
    if (target.IsRemote())
        return std::make_unique<SshImpairFiles>(target.via, folder, instance);
    return std::make_unique<LocalImpairFiles>(folder, instance);
}

} // namespace arqctl
