#include <algorithm>
#include <cmath>

#include "arqctl/core/checks.h"

namespace arqctl {

namespace {

constexpr uint32_t WRITE_BITS = 0222;
constexpr uint32_t OTHERS_WRITE = 0002;
constexpr uint32_t STICKY = 01000;

// The bits of a mode that count for this user, three times the same or none.
uint32_t RightsOf(const FileFacts& file, const UserFacts& user)
{
    constexpr uint32_t OWNER = 0700, GROUP = 0070, OTHERS = 0007;
    if (file.user == user.user)
        return file.mode & OWNER;
    if (std::ranges::find(user.groups, file.group) != user.groups.end())
        return file.mode & GROUP;
    return file.mode & OTHERS;
}

std::string UserText(const UserFacts& user)
{
    return "user " + std::to_string(user.user);
}

// A folder that anybody may write to lets local users take the proxy's files away.
bool IsOpenToAll(const FileFacts& folder)
{
    return (folder.mode & OTHERS_WRITE) != 0 && (folder.mode & STICKY) == 0;
}

Finding JudgeFolder(const DoctorFacts& facts, const std::optional<FileFacts>& folder, const std::string& path,
    const std::string& use, const std::string& loss)
{
    const std::optional<bool> mayWrite = MayWriteIn(folder, facts.user);
    if (!mayWrite)
        return NotApplicable(path + " could not be looked at");
    if (folder->isReadOnly)
        return Warning(path + " is read-only: " + loss,
            "Mount it so that it can be written to, and start the proxy again",
            "mount -o remount,rw " + path);
    if (!*mayWrite)
        return Warning(UserText(facts.user) + " may not write to " + path + ": " + loss,
            "Run the proxy as root, or give it folders of its own in a mount namespace; leave the rights of "
                + path + " as they are");
    if (IsOpenToAll(*folder))
        return Warning("anybody may write to " + path + ", and take the proxy's files there away",
            "Let only its owner write to it", "chmod o-w " + path);
    return Good(UserText(facts.user) + " may make " + use);
}

// With each stream's sockets and what the proxy needs besides.
uint64_t NeededDescriptors(const ProxyOptions& options)
{
    constexpr uint64_t STREAMS = 50, OTHERS = 32;
    constexpr int MOST_INTERFACES = 4;
    return STREAMS * static_cast<uint64_t>(std::clamp(options.interfaces, 1, MOST_INTERFACES)) + OTHERS;
}

} // namespace

bool MayWrite(const FileFacts& file, const UserFacts& user)
{
    return user.mayWriteAnywhere || (RightsOf(file, user) & WRITE_BITS) != 0;
}

std::optional<bool> MayWriteIn(const std::optional<FileFacts>& folder, const UserFacts& user)
{
    if (!folder)
        return std::nullopt;
    return folder->isFolder && !folder->isReadOnly && MayWrite(*folder, user);
}

Finding CheckProcess(const DoctorFacts& facts)
{
    const std::string pid = std::to_string(facts.pid);
    if (!facts.isRunning)
        return NotApplicable("instance " + WithoutCommas(facts.options.instance) + " is to be started");
    if (facts.pid == 0)
        return NotApplicable("its process is not to be seen from here");
    if (facts.state == 'T' || facts.state == 't')
        return Fault(
            "process " + pid + " has been stopped: nothing is sent", "Let it go on", "kill -CONT " + pid);
    if (facts.state == 'Z' || facts.state == 'X')
        return Fault("process " + pid + " has ended", "Start the proxy again");
    if (facts.state == 'D')
        return Warning("process " + pid + " waits for the system", "Look at the disk and the log's reader");
    return Good("process " + pid + " runs as " + UserText(facts.user));
}

Finding CheckControlSocket(const DoctorFacts& facts)
{
    const std::string& path = facts.control.path;
    const std::string restart = "Free the path and start the proxy again";
    switch (facts.control.state) {
    case ControlState::Answers:
        return facts.isRunning
            ? Good(path + " answers")
            : Fault("a proxy that runs answers on " + path, "Choose another instance number with -I");
    case ControlState::NoFile:
        return facts.isRunning ? Fault(path + " is missing: the proxy runs without control", restart)
                               : Good(path + " is free");
    case ControlState::NobodyListens:
        if (facts.isRunning)
            return Fault("nobody listens on " + path, restart);
        if (facts.control.file && facts.control.file->isFolder)
            return Fault(
                path + " is a folder: the proxy would run without control", "Remove it", "rmdir " + path);
        return Good(path + " was left behind, and the start replaces it");
    case ControlState::NotAllowed:
        return Warning("no right to speak to " + path + ": what the proxy counts is not seen",
            "Ask as root or as the proxy's user",
            "sudo arqctl doctor -I " + WithoutCommas(facts.options.instance));
    case ControlState::Silent:
        return Fault(path + " does not answer in time",
            "One client is served at a time: close others that hold a connection", "ss -xp | grep " + path);
    case ControlState::AnotherProgram:
        return Fault("what answers on " + path + " is no proxy",
            "End that program, then start the proxy again", "ss -xlp | grep " + path);
    }
    return {};
}

Finding CheckControlRights(const DoctorFacts& facts)
{
    const std::optional<FileFacts>& file = facts.control.file;
    if (!facts.isRunning || !file || !file->isSocket)
        return NotApplicable("no control socket is there");
    if ((file->mode & OTHERS_WRITE) != 0)
        return Warning("any user of this machine may give commands on " + facts.control.path,
            "Take the right away, and start the proxy with umask 007 or 022",
            "chmod o-w " + facts.control.path);
    return Good("only user " + std::to_string(file->user)
        + ((file->mode & 0020) != 0 ? ", group " + std::to_string(file->group) : std::string())
        + " and root give commands");
}

Finding CheckDeviceFolder(const DoctorFacts& facts)
{
    Finding finding = JudgeFolder(facts, facts.deviceFolder, "/dev", "the control socket in /dev",
        "no control socket, so no commands and no deliberate loss");
    if (!facts.isRunning && finding.verdict == Verdict::Warning
        && MayWriteIn(facts.deviceFolder, facts.user) == false)
        finding.verdict = Verdict::Fault;
    return finding;
}

Finding CheckRunFolder(const DoctorFacts& facts)
{
    return JudgeFolder(facts, facts.runFolder, "/var/run", "impairment files in /var/run",
        "deliberate loss cannot be switched off and on as it should");
}

Finding CheckOpenFiles(const DoctorFacts& facts)
{
    constexpr uint64_t SPARE = 8;
    if (!facts.descriptorsLimit)
        return NotApplicable("the limit of open files is not to be seen from here");
    const uint64_t limit = *facts.descriptorsLimit, needed = NeededDescriptors(facts.options);
    const std::string command = facts.isRunning
        ? "prlimit --pid " + std::to_string(facts.pid) + " --nofile=4096"
        : "ulimit -n 4096";
    if (facts.descriptors && *facts.descriptors + SPARE > limit)
        return Fault(Say(*facts.descriptors, " of ", limit, " files are open: new receivers get no media"),
            "Raise the limit", command);
    if (limit < needed)
        return Warning(Say("at most ", limit, " files may be open; 50 receivers need ", needed),
            "Raise the limit", command);
    if (!facts.descriptors)
        return Good(Say("up to ", limit, " files may be open"));
    return Good(Say(*facts.descriptors, " of ", limit, " files are open"));
}

Finding CheckEncryption(const DoctorFacts& facts)
{
    if (!facts.options.isEncrypting)
        return NotApplicable("neither -z nor -Z is given");
    if (!facts.isLibraryLoaded)
        return NotApplicable("what the process has loaded is not to be seen without root",
            "sudo arqctl doctor -I " + WithoutCommas(facts.options.instance));
    if (*facts.isLibraryLoaded)
        return Good(facts.isRunning
                ? "the library is loaded; that it took the password only the line 'Loaded' tells"
                : "the library is installed");
    return Fault(facts.isRunning ? "the library is not loaded: the stream leaves unencrypted"
                                 : "the library is not installed: the stream would leave unencrypted",
        "Install /usr/local/bin/libsorvanex.so.1.0 and start the proxy again");
}

// Receivers take a step of the proxy's clock for a new stream, and what was sent before counts as too old.
Finding CheckClock(const DoctorFacts& facts)
{
    constexpr double US = 1e6, STEP_SECONDS = 0.1;
    if (!facts.first.clockOffsetUs || !facts.second.clockOffsetUs)
        return NotApplicable("the proxy does not run yet");
    const double seconds = static_cast<double>(*facts.second.clockOffsetUs - *facts.first.clockOffsetUs) / US;
    if (std::abs(seconds) < STEP_SECONDS)
        return Good("nobody has set the clock between the looks");
    return Fault("the clock has just been set " + std::string(seconds > 0 ? "forward" : "back") + " by "
            + SecondsText(std::abs(seconds)) + ": timestamps jump, and receivers begin anew",
        "Leave one time service, and let it slew the clock instead of setting it", "timedatectl");
}

} // namespace arqctl
