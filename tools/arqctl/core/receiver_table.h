#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "arqctl/core/receiver_report.h"

namespace arqctl {

enum class ReporterState {
    Live,
    Gone, // no report for ReceiverTable::SILENCE_US
    Ended // it said that it ends
};

// "live", "gone", "ended": names of the interface.
const char* NameOf(ReporterState state);

// One receiver that reports, as a reader sees it. Valid until the table is changed.
struct ReporterView {
    const ReceiverReport* report = nullptr; // the newest
    std::string label; // its name, made unique within the channel
    std::string address; // that the reports come from
    ReporterState state = ReporterState::Live;
    int64_t ageUs = 0; // of the newest report
    uint64_t restarts = 0; // of the receiver, since it reports here
};

// What all receivers of a channel have counted since they report here. It goes on over their restarts and ends.
struct ReportTotals {
    uint64_t received = 0;
    uint64_t missing = 0;
    uint64_t recovered = 0;
    uint64_t lost = 0;

    bool operator==(const ReportTotals&) const = default;
};

// A channel and the receivers in its proxy's list, dotted quads.
struct ChannelReceivers {
    std::string channel;
    std::vector<std::string> addresses;
};

// The receivers that report, of all channels. A receiver is who has a channel, a name and an address; one that reports
// from another port after a pause is the same, started again. Two that report side by side from one address under one
// name are kept apart as long as both live.
//
// Whatever strangers send, there are never more than MOST. Times are microseconds of the monotonic clock. Threads: one
// thread's own.
class ReceiverTable {
public:
    static constexpr size_t MOST = 1000;
    static constexpr int64_t SILENCE_US = 10'000'000; // then it is gone
    static constexpr int64_t GONE_KEPT_US = 3'600'000'000; // after its last report
    static constexpr int64_t ENDED_KEPT_US = 600'000'000;

    // Texts of the report are clean. False: there is no room for another receiver; everyone who is here is live.
    bool Take(const ReceiverReport& report, uint32_t address, uint16_t port, int64_t nowUs);
    // The lists of all proxies, in the operator's order: a report without a channel belongs to the first that has its
    // address, and stays there when the list has it no longer. Also forgets whose time has come.
    void Assign(const std::vector<ChannelReceivers>& lists, int64_t nowUs);

    // The receivers of a channel, in the order in which they came; "": of those that belong to none.
    std::vector<ReporterView> Of(const std::string& channel, int64_t nowUs) const;
    // Every channel that a receiver belongs to, in order.
    std::vector<std::string> Channels() const;
    // All 0 for a channel that is in no list of Assign.
    ReportTotals TotalsOf(const std::string& channel) const;
    size_t Size() const { return m_reporters.size(); }

private:
    struct Key {
        uint32_t address;
        std::string channel; // as the report says
        std::string name;
        uint16_t port;
        bool operator<(const Key& other) const
        {
            return std::tie(address, channel, name, port)
                < std::tie(other.address, other.channel, other.name, other.port);
        }
        bool IsTwinOf(const Key& other) const
        {
            return address == other.address && channel == other.channel && name == other.name;
        }
    };
    struct Reporter {
        ReceiverReport report;
        std::string channel; // that it belongs to
        uint64_t order = 0;
        int64_t lastUs = 0;
        uint64_t restarts = 0;

        ReporterState State(int64_t nowUs) const;
        bool IsOver(int64_t nowUs) const;
    };
    using Reporters = std::map<Key, Reporter>;

    Reporters::iterator Find(const Key& key, int64_t nowUs);
    Reporters::iterator TwinOf(const Key& key, int64_t youngestUs);
    bool MakeRoom(int64_t nowUs);
    void Count(const ReceiverReport& before, const ReceiverReport& now, const std::string& channel);
    void Forget(int64_t nowUs);
    std::string ChannelOf(const Key& key, const std::string& otherwise) const;

    Reporters m_reporters;
    std::map<uint32_t, std::string> m_channels; // by address, from the lists
    std::map<std::string, ReportTotals> m_totals; // of the channels in the lists
    uint64_t m_nOrder = 0;
};

} // namespace arqctl
