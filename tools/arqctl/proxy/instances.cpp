#include "arqctl/proxy/instances.h"

#include <glob.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <tuple>

#include "arqctl/core/command_text.h"
#include "arqctl/core/kernel_text.h"
#include "arqctl/core/reply.h"
#include "arqctl/proxy/control_path.h"
#include "arqctl/proxy/other_network.h"
#include "common/clock.h"

namespace arqctl {

namespace {

constexpr size_t MOST_SOCKETS = 1000; // and no more descriptors at a time

void AddUsualFiles(std::vector<std::string>& paths)
{
    glob_t found {};
    // NOLINTNEXTLINE(concurrency-mt-unsafe): without a tilde no user is looked up
    if (glob("/dev/arq_tx_ctrl*", GLOB_NOSORT, nullptr, &found) == 0)
        paths.assign(found.gl_pathv, found.gl_pathv + std::min(found.gl_pathc, MOST_SOCKETS));
    globfree(&found);
}

std::vector<std::string> ControlFiles()
{
    std::vector<std::string> paths;
    AddUsualFiles(paths);
    for (const int number : PrivateInstances())
        paths.push_back(PrivateControlPath(number));
    return paths;
}

// Of proxies in containers and the like that use this network: no other path leads there.
void AddFilesOfProcesses(std::vector<std::string>& paths)
{
    for (const int pid : ProxyProcesses()) {
        const auto facts = SharesNetwork(pid) && !SharesDevices(pid) ? FactsOf(pid) : std::nullopt;
        if (!facts)
            continue;
        const std::string path = ControlPathOfProcess(pid, facts->options.instance);
        if (IsSocket(path) && std::ranges::find(paths, path) == paths.end())
            paths.push_back(path);
    }
}

bool IsListening(const std::string& path)
{
    sockaddr_un address {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path))
        return false;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    const UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    return connect(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0
        || errno == EAGAIN;
}

using Exchanges = std::vector<std::unique_ptr<Exchange>>;

// Until every one is over.
void ProceedAll(const Exchanges& exchanges)
{
    while (true) {
        std::vector<pollfd> waiting;
        int64_t wakeUs = INT64_MAX;
        for (const auto& each : exchanges) {
            each->Proceed(common::NowUs());
            if (each->IsOver())
                continue;
            waiting.push_back({ each->Fd(), each->Events(), 0 });
            wakeUs = std::min(wakeUs, each->WakeUs());
        }
        if (waiting.empty())
            return;
        const int64_t leftUs = std::max<int64_t>(wakeUs - common::NowUs(), 0);
        (void)poll(waiting.data(), waiting.size(), static_cast<int>(leftUs / common::US_PER_MS + 1));
    }
}

std::string CommandOf(int pid)
{
    return CommandText(ReadArguments(ReadText("/proc/" + std::to_string(pid) + "/cmdline").value_or("")));
}

InstanceState StateOf(Failure failure, bool isProxy, bool isAnswer)
{
    if (failure == Failure::NotListening)
        return InstanceState::Stale;
    if (failure == Failure::NotAllowed)
        return InstanceState::NotAllowed;
    if (failure == Failure::None && isAnswer)
        return InstanceState::Running;
    return isProxy ? InstanceState::Silent : InstanceState::Foreign;
}

void TakeAnswer(Instance& instance, const Exchange& exchange)
{
    instance.pid = exchange.PeerPid();
    instance.facts = FactsOf(instance.pid);
    instance.failure = exchange.Reason();
    const bool isAnswer
        = instance.failure == Failure::None && ParseStatistics(exchange.Reply(), instance.statistics);
    instance.state = StateOf(instance.failure, instance.facts.has_value(), isAnswer);
    instance.command = CommandOf(instance.pid);
}

std::string MountsOf(const std::string& process)
{
    std::array<char, 64> text {};
    const ssize_t length = readlink(("/proc/" + process + "/ns/mnt").c_str(), text.data(), text.size());
    return { text.data(), static_cast<size_t>(std::max<ssize_t>(length, 0)) };
}

void AddProxiesWithoutSocket(std::vector<Instance>& instances)
{
    const std::string ours = MountsOf("self");
    for (const int pid : ProxyProcesses()) {
        const auto isOf = [pid](const Instance& instance) { return instance.pid == pid; };
        if (std::ranges::any_of(instances, isOf)
            || (MountsOf(std::to_string(pid)) != ours && !SharesNetwork(pid)))
            continue;
        Instance instance;
        instance.facts = FactsOf(pid);
        if (!instance.facts)
            continue;
        instance.number = instance.facts->options.instance;
        instance.state = InstanceState::NoSocket;
        instance.pid = pid;
        instance.command = CommandOf(pid);
        // With no right to a socket nothing is known of who listens there.
        const auto isHidden = [&](const Instance& other) {
            return other.number == instance.number && other.state == InstanceState::NotAllowed;
        };
        const auto hidden = std::ranges::find_if(instances, isHidden);
        if (hidden == instances.end())
            instances.push_back(instance);
        else
            std::tie(hidden->pid, hidden->facts, hidden->command)
                = std::tie(pid, instance.facts, instance.command);
    }
}

} // namespace

std::vector<Instance> FindInstances(int64_t patienceUs)
{
    std::vector<Instance> instances;
    Exchanges exchanges;
    std::vector<size_t> asked;
    std::vector<std::string> paths = ControlFiles();
    AddFilesOfProcesses(paths);
    for (const std::string& path : paths) {
        Instance instance;
        instance.number = InstanceInPath(path);
        instance.socketPath = path;
        instances.push_back(instance);
        if (MayBeSocket(path)) {
            asked.push_back(instances.size() - 1);
            exchanges.push_back(std::make_unique<Exchange>(path, "AllStats", common::NowUs(), patienceUs));
        }
    }
    ProceedAll(exchanges);
    for (size_t i = 0; i < asked.size(); ++i)
        TakeAnswer(instances[asked[i]], *exchanges[i]);
    AddProxiesWithoutSocket(instances);
    std::ranges::stable_sort(instances, [](const Instance& one, const Instance& other) {
        return std::tuple(!one.number, one.number, one.socketPath)
            < std::tuple(!other.number, other.number, other.socketPath);
    });
    return instances;
}

std::vector<int> ListeningInstances()
{
    std::vector<int> numbers;
    for (const std::string& path : ControlFiles()) {
        const auto number = InstanceInPath(path);
        if (number && IsListening(path))
            numbers.push_back(*number);
    }
    std::ranges::sort(numbers);
    numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
    return numbers;
}

} // namespace arqctl
