#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "arqctl/core/channel_state.h"
#include "arqctl/core/history.h"
#include "arqctl/core/loss_sign.h"
#include "arqctl/core/receiver_table.h"
#include "arqctl/core/receiver_watch.h"
#include "arqctl/serve/watcher.h"
#include "common/endpoint.h"

namespace arqctl {

// One channel as the page, the metrics and the interface show it.
struct Channel {
    Channel(const WatchedChannel& first, std::string shownName, int64_t nowUs)
        : watched(first),
          name(std::move(shownName)),
          alarm(nowUs)
    {
    }

    WatchedChannel watched; // the newest
    std::string name;
    ChannelAlarm alarm;
    ReceiverWatch receivers;
    LossSign loss;
    History history;
    Totals totalsBefore; // of the history's last known second
    ReportTotals reportedBefore; // the same
    int64_t secondBefore = -1; // -1: none yet
    bool isAfterGap = true; // some second since was not known
};

// All channels, in the order in which they were found. Times are microseconds of the monotonic clock.
// Threads: the event loop's own.
class Board {
public:
    // `names`: shown instead of the ID.
    explicit Board(std::map<std::string, std::string> names) : m_names(std::move(names)) {}

    // Once a second: takes over what was seen, and gives each channel's history its second.
    void Take(const WatchedChannels& seen, int64_t nowUs);

    // A datagram from a stranger that may be a receiver's report. One that is none is passed over.
    void TakeReport(std::string_view datagram, const common::Endpoint& source, int64_t nowUs);
    const ReceiverTable& Reports() const { return m_reports; }

    const std::vector<std::unique_ptr<Channel>>& All() const { return m_channels; }
    Channel* Find(const std::string& id) const;

    // Whether some channel's proxy answers; a sentence about what is wrong otherwise.
    bool IsFresh(std::string& reason) const;

private:
    Channel& Shown(const WatchedChannel& seen, int64_t nowUs);
    void AssignReports(int64_t nowUs);

    const std::map<std::string, std::string> m_names;
    std::vector<std::unique_ptr<Channel>> m_channels;
    ReceiverTable m_reports;
};

} // namespace arqctl
