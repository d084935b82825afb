#include "arqctl/proxy/loss_observer.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>

#include "arqctl/core/reply.h"
#include "arqctl/proxy/process.h"
#include "base/unique_fd.h"
#include "common/clock.h"

namespace arqctl {

namespace {

// The state letter behind the name in brackets, which may hold brackets itself. '?' when it cannot be read.
char StateIn(const std::string& path)
{
    char text[512];
    const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    const ssize_t count = file.IsValid() ? read(file.Get(), text, sizeof(text) - 1) : 0;
    if (count <= 0)
        return '?';
    text[count] = '\0';
    const char* const bracket = strrchr(text, ')');
    return bracket != nullptr && bracket[1] == ' ' ? bracket[2] : '?';
}

struct CloseTasks {
    void operator()(DIR* folder) const { (void)closedir(folder); }
};

// Whether all threads sleep: then none stands in the middle of sending, where the machine may have stopped it. Also true
// where that cannot be seen.
bool IsAsleep(int pid)
{
    const std::string path = "/proc/" + std::to_string(pid) + "/task/";
    const std::unique_ptr<DIR, CloseTasks> tasks(pid != 0 ? opendir(path.c_str()) : nullptr);
    if (!tasks)
        return true;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): a folder of our own
    while (const dirent* entry = readdir(tasks.get()))
        if (entry->d_name[0] != '.' && StateIn(path + entry->d_name + "/stat") == 'R')
            return false;
    return true;
}

// One look at a proxy. Threads: one thread's own.
class LossObserver {
public:
    explicit LossObserver(const LossLook& look) : m_look(look), m_watch(look.periodPackets) {}

    ObservedLoss Run()
    {
        const int64_t endUs = common::NowUs() + m_look.longestUs;
        ObservedLoss observed;
        for (bool isLast = false; !isLast; (void)poll(nullptr, 0, m_look.turnMs)) {
            observed.failure = Turn();
            isLast = observed.failure != Failure::None || IsStopped() || common::NowUs() >= endUs;
            observed.finding = m_watch.Judge(common::NowUs(), isLast);
            if (observed.finding.state != LossState::Unknown || observed.finding.doubt != LossDoubt::None)
                break;
        }
        return observed;
    }

private:
    bool IsStopped() const { return m_look.stop != nullptr && *m_look.stop; }

    Failure Turn()
    {
        Statistics first;
        Statistics second;
        Failure failure = Read(first);
        const bool isAsleep = failure == Failure::None && IsAsleep(m_nPid);
        if (isAsleep)
            failure = Read(second);
        if (failure != Failure::None)
            return failure;
        m_watch.See(first, common::NowUs());
        if (isAsleep && IsSame(first, second))
            m_watch.TakeAtRest(second, FanOutTo(second.receivers.size()));
        return Failure::None;
    }

    int FanOutTo(size_t receivers) const
    {
        if (!m_isGroup)
            return -1;
        return *m_isGroup ? 1 : static_cast<int>(receivers);
    }

    // Bit rates change whenever a second is over.
    static bool IsSame(const Statistics& a, const Statistics& b)
    {
        return a.receivedPackets == b.receivedPackets && a.sentPackets == b.sentPackets
            && a.receivers == b.receivers;
    }

    Failure Read(Statistics& statistics)
    {
        const Answer answer = Ask(m_look.socketPath, "AllStats", m_look.answerPatienceUs);
        if (!answer.IsThere())
            return answer.failure;
        m_nPid = m_look.isRemote ? 0 : answer.peerPid;
        if (!m_hasLooked)
            LookAtProcess();
        return ParseStatistics(answer.reply, statistics) ? Failure::None : Failure::Foreign;
    }

    // A proxy that sends to a group shows that only on its command line.
    void LookAtProcess()
    {
        m_hasLooked = true;
        if (const auto facts = m_nPid != 0 ? FactsOf(m_nPid) : std::nullopt)
            m_isGroup = !OutputGroup(facts->options).empty();
    }

    const LossLook m_look;
    LossWatch m_watch;
    int m_nPid = 0;
    bool m_hasLooked = false;
    std::optional<bool> m_isGroup; // empty: its process may not be looked at
};

} // namespace

ObservedLoss ObserveLoss(const LossLook& look)
{
    return LossObserver(look).Run();
}

} // namespace arqctl
