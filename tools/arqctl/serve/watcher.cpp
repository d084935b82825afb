#include "arqctl/serve/watcher.h"

#include <sys/eventfd.h>

#include <algorithm>
#include <utility>

#include "arqctl/core/reply.h"
#include "arqctl/proxy/instances.h"
#include "arqctl/serve/worker_thread.h"
#include "common/clock.h"

namespace arqctl {

namespace {

constexpr int64_t PERIOD_US = common::US_PER_SECOND;
constexpr int64_t LOOK_US = 10 * common::US_PER_SECOND; // for proxies that have started since
constexpr int64_t PROCESS_US = 2 * common::US_PER_SECOND; // between two looks at /proc

// How a proxy fans out is known from its command line: to a group each packet goes once. -1: to the list.
int FanOutOf(const std::optional<ProcessFacts>& facts)
{
    const bool isToGroup = facts && facts->options.unicastPort != 0 && !OutputGroup(facts->options).empty();
    return isToGroup ? 1 : -1;
}

} // namespace

struct Watcher::Watched {
    Watched(const Target& target, const std::string& path, int64_t patienceUs)
        : poller({ path }, PERIOD_US, patienceUs)
    {
        now.target = target;
        now.id = target.Name();
        now.socketPath = path;
    }

    void Take(PolledAnswer polled, Tunnels& tunnels);
    void LookAgain(Tunnels& tunnels);

    Poller poller;
    Meter meter;
    WatchedChannel now;
    int64_t nextProcessUs = 0;
    int lookedAtPid = 0;
};

void Watcher::Watched::Take(PolledAnswer polled, Tunnels& tunnels)
{
    tunnels.Judge(now.target, polled.answer);
    Statistics statistics;
    Failure failure = polled.answer.failure;
    if (failure == Failure::None && !ParseStatistics(polled.answer.reply, statistics))
        failure = Failure::CutOff;
    now.problem = tunnels.Explain(now.target, failure).problem;
    if (failure == Failure::None) {
        now.pid = now.target.IsRemote() ? 0 : polled.answer.peerPid;
        now.answerSeconds = static_cast<double>(polled.tookUs) / 1e6;
        meter.Take(statistics, polled.atUs, now.pid, FanOutOf(now.facts));
    } else {
        now.failures++;
        meter.Miss(polled.atUs);
        LookAgain(tunnels);
    }
    now.reading = meter.Now();
}

// Started anew by another unit it has its socket elsewhere.
void Watcher::Watched::LookAgain(Tunnels& tunnels)
{
    std::string path = tunnels.PathOf(now.target);
    if (path == now.socketPath)
        return;
    now.socketPath = path;
    poller.Watch({ std::move(path) });
}

Watcher::Watcher(std::vector<Target> targets, int64_t patienceUs)
    : m_bFindsTargets(targets.empty()),
      m_patienceUs(patienceUs),
      m_end(eventfd(0, EFD_CLOEXEC)),
      m_latest(std::make_shared<WatchedChannels>())
{
    m_thread = StartWorker([this, targets = std::move(targets)] {
        m_tunnels = std::make_unique<Tunnels>(); // its sockets and processes are this thread's
        for (const Target& target : targets)
            Watch(target);
        Run();
        m_tunnels.reset();
    });
}

Watcher::~Watcher()
{
    (void)eventfd_write(m_end.Get(), 1);
    m_thread.join();
}

std::shared_ptr<const WatchedChannels> Watcher::Latest()
{
    const MutexLock lock(m_mutex);
    return m_latest;
}

void Watcher::Run()
{
    pollfd end { m_end.Get(), POLLIN, 0 };
    while (poll(&end, 1, 0) == 0) {
        const int64_t nowUs = common::NowUs();
        LookForTargets(nowUs);
        m_tunnels->Proceed(nowUs);
        ProceedAll(nowUs);
        Publish();
        WaitForNews();
    }
}

void Watcher::LookForTargets(int64_t nowUs)
{
    if (!m_bFindsTargets || nowUs < m_nextLookUs)
        return;
    m_nextLookUs = nowUs + LOOK_US;
    for (const int number : ListeningInstances()) {
        Target target;
        target.instance = number;
        Watch(target);
    }
}

void Watcher::Watch(const Target& target)
{
    const auto isSame = [&target](const auto& one) { return one->now.target == target; };
    if (std::none_of(m_watched.begin(), m_watched.end(), isSame))
        m_watched.push_back(std::make_unique<Watched>(target, m_tunnels->PathOf(target), m_patienceUs));
}

void Watcher::WaitForNews()
{
    std::vector<pollfd> descriptors { { m_end.Get(), POLLIN, 0 } };
    int64_t wakeUs = common::NowUs() + PERIOD_US;
    for (const auto& watched : m_watched)
        wakeUs = std::min(wakeUs, watched->poller.Wait(descriptors));
    const int64_t leftUs = std::max<int64_t>(wakeUs - common::NowUs(), 0);
    (void)poll(descriptors.data(), descriptors.size(),
        static_cast<int>((leftUs + common::US_PER_MS - 1) / common::US_PER_MS));
}

void Watcher::ProceedAll(int64_t nowUs)
{
    for (const auto& watched : m_watched) {
        for (const PolledAnswer& polled : watched->poller.Proceed(nowUs))
            watched->Take(polled, *m_tunnels);
        LookAtProcess(*watched, nowUs);
    }
}

void Watcher::LookAtProcess(Watched& watched, int64_t nowUs)
{
    const int pid = watched.now.reading.isUp ? watched.now.pid : 0; // 0: nothing to be seen
    if (nowUs < watched.nextProcessUs && pid == watched.lookedAtPid)
        return;
    watched.nextProcessUs = nowUs + PROCESS_US;
    watched.lookedAtPid = pid;
    watched.now.facts = pid != 0 ? FactsOf(pid) : std::nullopt;
}

void Watcher::Publish()
{
    auto channels = std::make_shared<WatchedChannels>();
    for (const auto& watched : m_watched)
        channels->push_back(watched->now);
    const MutexLock lock(m_mutex);
    m_latest = std::move(channels);
}

} // namespace arqctl
