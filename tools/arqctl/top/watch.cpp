#include "arqctl/top/watch.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "arqctl/core/reply.h"
#include "arqctl/proxy/instances.h"
#include "arqctl/proxy/process.h"
#include "common/clock.h"

namespace arqctl::top {

namespace {

constexpr int64_t ASK_EVERY_US = common::US_PER_SECOND;
constexpr int64_t LOOK_EVERY_US = 10 * common::US_PER_SECOND;
constexpr int64_t TUNNELS_EVERY_US = common::US_PER_SECOND;

// "input 5000, media 10000, requests 7020, ring 4096"
std::string FactsText(const ProxyOptions& options)
{
    const std::string group = OutputGroup(options);
    const std::string from = options.group.empty() ? "" : options.group + ":";
    std::string text = fmt::format("input {}{}, media {}", from, options.listenPort, options.mediaPort);
    if (!group.empty())
        text += fmt::format(" to group {}", group);
    text += fmt::format(", requests {}, ring {}", options.requestPort, options.ringPackets);
    return text;
}

} // namespace

Watch::Watch(const std::vector<Target>& targets, int64_t patienceUs)
    : m_bFinds(targets.empty()),
      m_poller({}, ASK_EVERY_US, patienceUs)
{
    for (const Target& target : targets)
        Add(target);
}

void Watch::Add(const Target& target)
{
    const std::string name = target.Name();
    if (Find(name) != nullptr)
        return;
    Watched watched;
    watched.target = target;
    watched.path = m_tunnels.PathOf(target);
    watched.history = std::make_unique<RecentHistory>();
    watched.instance = target.instance;
    m_watched.push_back(std::move(watched));
    AskAll();
}

void Watch::AskAll()
{
    std::vector<std::string> paths;
    for (const Watched& known : m_watched)
        paths.push_back(known.path);
    m_poller.Watch(std::move(paths));
}

int64_t Watch::Wait(std::vector<pollfd>& descriptors) const
{
    const int64_t wakeUs = std::min(m_poller.Wait(descriptors), m_nextTunnelUs);
    return m_bFinds ? std::min(wakeUs, m_nextLookUs) : wakeUs;
}

bool Watch::Proceed(int64_t nowUs)
{
    bool isNew = LookForInstances(nowUs);
    if (nowUs >= m_nextTunnelUs) {
        m_tunnels.Proceed(nowUs);
        m_nextTunnelUs = nowUs + TUNNELS_EVERY_US;
    }
    for (PolledAnswer& polled : m_poller.Proceed(nowUs)) {
        Take(m_watched[polled.index], polled);
        isNew = true;
    }
    return isNew;
}

bool Watch::LookForInstances(int64_t nowUs)
{
    if (!m_bFinds || nowUs < m_nextLookUs)
        return false;
    m_nextLookUs = nowUs + LOOK_EVERY_US;
    const size_t before = m_watched.size();
    for (const int instance : ListeningInstances()) {
        Target target;
        target.instance = instance;
        Add(target);
    }
    return m_watched.size() != before;
}

void Watch::Take(Watched& watched, PolledAnswer& polled)
{
    Answer& answer = polled.answer;
    m_tunnels.Judge(watched.target, answer);
    Statistics statistics;
    watched.failure = answer.failure;
    if (answer.IsThere() && !ParseStatistics(answer.reply, statistics))
        watched.failure = Failure::Foreign;
    watched.trouble.clear();
    if (watched.failure != Failure::None) {
        if (watched.target.IsRemote())
            watched.trouble = m_tunnels.Explain(watched.target, watched.failure).problem;
        watched.meter.Miss(polled.atUs);
        return LookAgain(watched);
    }
    const int pid = watched.target.IsRemote() ? 0 : answer.peerPid; // else it is that of ssh
    LookAtProcess(watched, pid);
    watched.meter.Take(statistics, polled.atUs, pid, watched.fanOut);
    watched.history->Take(SampleOf(watched.meter.Now()), polled.atUs);
}

// Started anew by another unit it has its socket elsewhere.
void Watch::LookAgain(Watched& watched)
{
    std::string path = m_tunnels.PathOf(watched.target);
    if (path == watched.path)
        return;
    watched.path = std::move(path);
    AskAll();
}

void Watch::LookAtProcess(Watched& watched, int pid)
{
    if (pid == 0 || pid == watched.pid)
        return;
    watched.pid = pid;
    watched.fanOut = -1;
    watched.mediaPort = 0;
    watched.facts.clear();
    const std::optional<ProcessFacts> facts = FactsOf(pid);
    if (!facts)
        return;
    watched.fanOut = OutputGroup(facts->options).empty() ? -1 : 1;
    watched.mediaPort = facts->options.mediaPort;
    watched.instance = facts->options.instance;
    watched.facts = FactsText(facts->options);
}

std::vector<ShownProxy> Watch::Shown() const
{
    std::vector<ShownProxy> shown;
    for (const Watched& watched : m_watched) {
        ShownProxy proxy;
        proxy.name = watched.target.Name();
        proxy.path = watched.target.ControlPath();
        proxy.reading = watched.meter.Now();
        proxy.failure = watched.failure;
        proxy.trouble = watched.trouble;
        proxy.history = watched.history.get();
        proxy.facts = watched.facts;
        proxy.mediaPort = watched.mediaPort;
        shown.push_back(std::move(proxy));
    }
    return shown;
}

const Target* Watch::Find(const std::string& name) const
{
    const auto found = std::find_if(m_watched.begin(), m_watched.end(),
        [&name](const Watched& watched) { return watched.target.Name() == name; });
    return found == m_watched.end() ? nullptr : &found->target;
}

std::string Watch::PathOf(const Target& target)
{
    return m_tunnels.PathOf(target);
}

int Watch::InstanceOf(const std::string& name) const
{
    const auto found = std::find_if(m_watched.begin(), m_watched.end(),
        [&name](const Watched& watched) { return watched.target.Name() == name; });
    return found == m_watched.end() ? 0 : found->instance;
}

} // namespace arqctl::top
