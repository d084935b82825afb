#include "arqctl/doctor/gather.h"

#include <netdb.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>

#include "arqctl/core/loss_settings.h"
#include "arqctl/core/network_text.h"
#include "arqctl/core/reply.h"
#include "arqctl/proxy/ask.h"
#include "arqctl/proxy/control_path.h"
#include "arqctl/proxy/folder.h"
#include "arqctl/proxy/impair_files.h"
#include "arqctl/proxy/loss_observer.h"
#include "arqctl/proxy/network_facts.h"
#include "arqctl/proxy/other_network.h"
#include "arqctl/proxy/process.h"
#include "arqctl/proxy/socket_holders.h"
#include "common/clock.h"
#include "common/endpoint.h"

namespace arqctl {

namespace {

constexpr const char* INSTALLED_LIBRARY = "/usr/local/bin/libsorvanex.so.1.0";
constexpr const char* DISK_LIBRARY = "/disk/sorvanex/libsorvanex.so.1.0";
constexpr std::string_view LIBRARY = "libsorvanex.so";

// "/proc/PID/" of the proxy, or of this program for one that is to be started: it would inherit.
std::string ProcessFolder(int pid)
{
    return pid == 0 ? "/proc/self/" : "/proc/" + std::to_string(pid) + "/";
}

// What stands in front of a path as the proxy sees it, where its files are others than ours.
std::string RootOf(int pid)
{
    const std::string root = ProcessFolder(pid) + "root";
    return pid != 0 && !SharesDevices(pid) && access((root + "/dev").c_str(), F_OK) == 0 ? root : "";
}

std::optional<FileFacts> FactsOfFile(const std::string& path)
{
    constexpr mode_t MODE_BITS = 07777;
    struct stat status {};
    struct statvfs system {};
    if (stat(path.c_str(), &status) != 0)
        return std::nullopt;
    FileFacts facts;
    facts.isFolder = S_ISDIR(status.st_mode);
    facts.isSocket = S_ISSOCK(status.st_mode);
    facts.isReadOnly = statvfs(path.c_str(), &system) == 0 && (system.f_flag & ST_RDONLY) != 0;
    facts.mode = status.st_mode & MODE_BITS;
    facts.user = status.st_uid;
    facts.group = status.st_gid;
    return facts;
}

ControlState StateOf(const Answer& answer, bool isAsWanted)
{
    const Failure failure = answer.failure;
    if (failure == Failure::None)
        return isAsWanted ? ControlState::Answers : ControlState::AnotherProgram;
    if (failure == Failure::NoSocket)
        return ControlState::NoFile;
    if (failure == Failure::NotListening)
        return ControlState::NobodyListens;
    if (failure == Failure::NotAllowed)
        return ControlState::NotAllowed;
    if (failure == Failure::CutOff || failure == Failure::TooLong || failure == Failure::Foreign)
        return ControlState::AnotherProgram;
    return ControlState::Silent;
}

bool IsStopped(const DoctorFacts& facts)
{
    return facts.state == 'T' || facts.state == 't';
}

// A process that stands still is not waited for.
void AskCounts(DoctorFacts& facts, CountsLook& look, int64_t patienceUs)
{
    look.atUs = common::NowUs();
    if (IsStopped(facts)) {
        facts.control.state = ControlState::Silent;
        return;
    }
    const Answer answer = Ask(facts.control.path, "AllStats", patienceUs);
    look.atUs = common::NowUs();
    Statistics statistics;
    const bool isStatistics = answer.IsThere() && ParseStatistics(answer.reply, statistics);
    facts.control.state = StateOf(answer, isStatistics);
    if (isStatistics)
        look.statistics = statistics;
}

// The proxy's clock. It is read between two readings of the steady one that are close to each other.
std::optional<int64_t> ClockOffsetUs()
{
    constexpr int TRIES = 10;
    constexpr int64_t CLOSE_US = 10'000;
    for (int i = 0; i < TRIES; ++i) {
        timeval now {};
        const int64_t before = common::NowUs();
        (void)gettimeofday(&now, nullptr);
        if (common::NowUs() - before < CLOSE_US)
            return now.tv_sec * common::US_PER_SECOND + now.tv_usec - before;
    }
    return std::nullopt;
}

void LookAtSockets(const DoctorFacts& facts, CountsLook& look, const std::optional<ProcessFacts>& process)
{
    const NetworkCounts counts = NetworkCountsOf(facts.pid);
    look.sourceFilterDrops = counts.sourceFilterDrops;
    look.closedPortDatagrams = counts.closedPortDatagrams;
    look.unreachableMessages = counts.unreachableMessages;
    if (!process)
        return;
    if (const UdpSocketFacts* input = process->Input())
        look.input = *input;
    for (const UdpSocketFacts& socket : process->sockets) {
        if (socket.port == facts.options.requestPort || socket.port == PingPort(facts.options))
            look.otherDrops += socket.drops;
    }
}

// First or second: what grows.
void LookAtCounts(DoctorFacts& facts, CountsLook& look, int64_t patienceUs)
{
    if (!facts.isRunning) {
        const Answer answer = Ask(facts.control.path, "List", patienceUs);
        facts.control.state = StateOf(answer, answer.IsThere());
        return;
    }
    look.clockOffsetUs = ClockOffsetUs();
    facts.state = ReadState(ReadText(ProcessFolder(facts.pid) + "stat").value_or(""));
    if (facts.pid == 0)
        facts.state = '\0';
    AskCounts(facts, look, patienceUs);
    LookAtSockets(facts, look, facts.pid == 0 ? std::nullopt : FactsOf(facts.pid));
}

std::vector<uint32_t> AddressesOf(const std::string& text)
{
    std::vector<uint32_t> addresses;
    uint32_t address = 0;
    if (common::ParseAddress(text, address))
        return { address };
    addrinfo hints {};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(text.c_str(), nullptr, &hints, &found) != 0)
        return addresses;
    for (const addrinfo* one = found; one != nullptr; one = one->ai_next) {
        const void* raw = one->ai_addr; // of the family that was asked for
        addresses.push_back(common::FromSockaddr(*static_cast<const sockaddr_in*>(raw)).address);
    }
    freeaddrinfo(found);
    return addresses;
}

// A mapped file stands under the name that links lead to, which may be any: then its inode tells.
bool IsMapped(const std::string& maps, const std::string& path)
{
    struct stat status {};
    return maps.find(LIBRARY) != std::string::npos
        || (stat(path.c_str(), &status) == 0
            && maps.find(" " + std::to_string(status.st_ino) + " ") != std::string::npos);
}

std::optional<bool> IsLibraryThere(const DoctorFacts& facts)
{
    if (!facts.isRunning)
        return access(INSTALLED_LIBRARY, F_OK) == 0 || access(DISK_LIBRARY, F_OK) == 0;
    const std::string folder = ProcessFolder(facts.pid);
    const std::string maps = ReadText(folder + "maps").value_or("");
    return maps.empty() ? std::nullopt : std::optional(IsMapped(maps, folder + "root" + INSTALLED_LIBRARY));
}

void GatherProcess(DoctorFacts& facts)
{
    const std::string folder = ProcessFolder(facts.pid);
    if (facts.isRunning && facts.pid == 0)
        return;
    const std::string root = RootOf(facts.pid);
    facts.user = ReadUser(ReadText(folder + "status").value_or("")).value_or(UserFacts {});
    facts.deviceFolder = FactsOfFile(root + "/dev");
    // A link in another root would lead to our own /run.
    facts.runFolder = FactsOfFile(root.empty() ? "/var/run" : root + "/run");
    facts.descriptorsLimit = ReadFileLimit(ReadText(folder + "limits").value_or(""));
    const size_t names = facts.isRunning ? NamesIn(folder + "fd").size() : 0;
    if (names > 2) // "." and ".."
        facts.descriptors = names - 2;
    if (facts.options.isEncrypting)
        facts.isLibraryLoaded = IsLibraryThere(facts);
}

void GatherDestinations(DoctorFacts& facts)
{
    for (const std::string& text : facts.options.destinations)
        facts.destinations.push_back({ text, AddressesOf(text) });
}

Patient PatientOf(const ProcessFacts& process)
{
    Patient patient;
    patient.pid = process.pid;
    patient.options = process.options;
    patient.areOptionsKnown = true;
    patient.controlPath = ControlPathOfProcess(process.pid, process.options.instance);
    return patient;
}

// The proxy of this number (0: none) whose process shares something with this program; without a process if there is none.
Patient ProcessWith(int instance, bool (*shares)(int pid))
{
    for (const int pid : instance == 0 ? std::vector<int> {} : ProxyProcesses()) {
        const auto process = shares(pid) ? FactsOf(pid) : std::nullopt;
        if (process && process->options.instance == instance)
            return PatientOf(*process);
    }
    return {};
}

} // namespace

std::vector<Patient> PatientsHere()
{
    std::vector<Patient> patients;
    for (const int pid : ProxyProcesses()) {
        if (!SharesNetwork(pid) && !SharesDevices(pid))
            continue;
        if (const auto process = FactsOf(pid))
            patients.push_back(PatientOf(*process));
    }
    return patients;
}

Patient PatientAt(const std::string& controlPath, int instance, int64_t patienceUs)
{
    // Whose /dev is ours made this very socket: it need not be asked, and may be unable to answer.
    Patient patient = ProcessWith(instance, SharesDevices);
    if (patient.pid == 0) {
        const Answer answer = Ask(controlPath, "List", patienceUs);
        const auto process = FactsOf(answer.peerPid);
        patient = process ? PatientOf(*process) : ProcessWith(instance, SharesNetwork);
        patient.isRunning = patient.pid != 0 || answer.IsThere() || answer.failure == Failure::NotAllowed
            || answer.failure == Failure::NoAnswer;
    }
    patient.controlPath = controlPath;
    if (!patient.areOptionsKnown)
        patient.options.instance = instance;
    return patient;
}

DoctorFacts FirstLook(const Patient& patient, const Expectation& expectation, int64_t patienceUs)
{
    DoctorFacts facts;
    facts.options = patient.options;
    facts.areOptionsKnown = patient.areOptionsKnown;
    facts.isRunning = patient.isRunning;
    facts.pid = patient.pid;
    facts.control.path = patient.controlPath;
    facts.control.file = FactsOfFile(patient.controlPath);
    facts.source = expectation.source;
    facts.expectedBitRate = expectation.bitRate;
    facts.expectedPayload = expectation.payload;
    LookAtCounts(facts, facts.first, patienceUs);
    const auto process = facts.pid == 0 ? std::nullopt : FactsOf(facts.pid);
    GatherProcess(facts);
    GatherNetwork(facts, process ? process->sockets : std::vector<UdpSocketFacts> {});
    if (facts.first.input)
        facts.receiveBuffer = ReceiveBufferOf(facts.pid, facts.first.input->inode);
    GatherDestinations(facts);
    return facts;
}

Taps OpenTaps(const DoctorFacts& facts)
{
    const OtherNetwork network(facts.pid);
    if (!facts.isRunning || facts.pid == 0 || !network.IsThere())
        return {};
    constexpr uint32_t COUNT_ONLY = 1;
    uint32_t group = 0;
    (void)common::ParseAddress(facts.options.group, group);
    return { PortTap(facts.options.listenPort, group, COUNT_ONLY),
        PortTap(PingPort(facts.options), 0, PING_HEAD_BYTES) };
}

void TakeArrivals(DoctorFacts& facts, Taps& taps)
{
    if (!taps.input.IsOpen() || !taps.pings.IsOpen())
        return;
    ArrivalFacts arrivals { .input = taps.input.TakeCount(), .pingers = {} };
    for (const std::vector<uint8_t>& head : taps.pings.TakeHeads()) {
        const std::optional<Pinger> pinger = ReadPinger(head);
        if (pinger && std::ranges::find(arrivals.pingers, *pinger) == arrivals.pingers.end())
            arrivals.pingers.push_back(*pinger);
    }
    facts.arrivals = std::move(arrivals);
}

void LookForLoss(DoctorFacts& facts, int64_t longestUs, int64_t patienceUs)
{
    if (!facts.isRunning || !facts.areOptionsKnown || facts.control.state != ControlState::Answers)
        return;
    std::string settings;
    (void)LocalImpairFiles(RunFolderOf(facts.control.path), facts.options.instance)
        .ReadSettings(settings); // without any: the proxy's defaults
    facts.deliberateLoss = ObserveLoss({ .socketPath = facts.control.path,
                                           .periodPackets = LongestLossPeriod(ReadLossSettings(settings)),
                                           .answerPatienceUs = patienceUs,
                                           .longestUs = longestUs,
                                           .turnMs = 4 })
                               .finding;
}

void SecondLook(DoctorFacts& facts, int64_t patienceUs)
{
    LookAtCounts(facts, facts.second, patienceUs);
}

} // namespace arqctl
