#include <fmt/format.h>
#include <poll.h>

#include <memory>
#include <nlohmann/json.hpp>

#include "arqctl/cli/commands.h"
#include "arqctl/core/drain_ledger.h"
#include "common/clock.h"
#include "common/quantity.h"

namespace arqctl {

namespace {

constexpr int64_t USUAL_SETTLE_US = 2 * common::US_PER_SECOND;
// A deletion takes the proxy 100 ms.
constexpr int64_t DRAIN_US = 10 * common::US_PER_SECOND;
constexpr int64_t DRAIN_US_A_RECEIVER = 250 * common::US_PER_MS;
constexpr int DRAIN_TURN_MS = 200;

constexpr auto DRAIN_ADVICE = "end these receivers, or keep their pings out with a firewall, and drain again";

class Drain {
public:
    Drain(const Session& session, int64_t settleUs) : m_session(session), m_settleUs(settleUs) {}

    ExitStatus Run()
    {
        Statistics statistics;
        Failure failure = AskStatistics(m_session, statistics);
        const bool wasEmpty = statistics.receivers.empty();
        const auto count = static_cast<int64_t>(statistics.receivers.size());
        const int64_t deadlineUs = common::NowUs()
            + (m_session.isPatienceGiven ? m_session.patienceUs : DRAIN_US + count * DRAIN_US_A_RECEIVER);
        if (failure == Failure::None && !wasEmpty)
            failure = DeleteUntil(deadlineUs, std::move(statistics.receivers));
        if (failure != Failure::None)
            return FailedAnswer(m_session, failure);
        return Tell(wasEmpty);
    }

private:
    // Until the list has stayed empty for a while, or time is over.
    Failure DeleteUntil(int64_t deadlineUs, std::vector<std::string> list)
    {
        int64_t emptyUs = 0; // since when, 0: it is not
        while (true) {
            m_ledger.Take(list);
            const int64_t nowUs = common::NowUs();
            emptyUs = !list.empty() ? 0 : emptyUs > 0 ? emptyUs : nowUs;
            m_isSettled = emptyUs > 0 && nowUs - emptyUs >= m_settleUs;
            if (m_isSettled || nowUs >= deadlineUs)
                return Failure::None;
            Failure failure = DeleteEach(list, deadlineUs);
            if (failure == Failure::None)
                failure = Look(list);
            if (failure != Failure::None)
                return failure;
        }
    }

    Failure DeleteEach(const std::vector<std::string>& list, int64_t deadlineUs) const
    {
        for (const std::string& address : list) {
            const Failure failure = AskFor(m_session, "Delete " + address, "OK: Deleting: " + address);
            if (failure != Failure::None || common::NowUs() >= deadlineUs)
                return failure;
        }
        return Failure::None;
    }

    Failure Look(std::vector<std::string>& list)
    {
        Statistics statistics;
        Failure failure = AskStatistics(m_session, statistics);
        if (failure == Failure::None && (statistics.receivers.empty() || statistics.receivers == list)) {
            m_ledger.Take(statistics.receivers);
            (void)poll(nullptr, 0, DRAIN_TURN_MS); // nothing to be done at once
            failure = AskStatistics(m_session, statistics);
        }
        list = std::move(statistics.receivers);
        return failure;
    }

    ExitStatus Tell(bool wasEmpty) const
    {
        const auto left = m_isSettled ? std::vector<DrainLedger::Left>() : m_ledger.NotGone();
        const char* const result = wasEmpty ? "already" : left.empty() ? "done" : "refused";
        const std::string sentence = wasEmpty ? "there are no receivers" : Sentence(left);
        if (m_session.isJson)
            Print(result, sentence, left);
        if (!left.empty())
            fmt::print(stderr, "arqctl: {}\n{}\n", sentence, DRAIN_ADVICE);
        else if (!m_session.isJson)
            fmt::print("{}\n", sentence);
        return wasEmpty ? ExitStatus::AlreadySo : left.empty() ? ExitStatus::Good : ExitStatus::NotDone;
    }

    // Once the list has stayed empty, what came back meanwhile too.
    std::vector<std::string> Deleted() const { return m_isSettled ? m_ledger.Seen() : m_ledger.Gone(); }

    std::string Sentence(const std::vector<DrainLedger::Left>& left) const
    {
        const size_t gone = Deleted().size();
        if (left.empty())
            return fmt::format("{} deleted; none is left",
                gone == 1 ? "1 receiver was" : fmt::format("{} receivers were", gone));
        std::string names;
        for (const auto& each : left)
            names += fmt::format("{}{} ({})", names.empty() ? "" : ", ", each.address,
                each.hasComeBack ? "came back: it pings" : "stays: it joined with a stream ID, or pings");
        return fmt::format("{} of {} receivers {} left: {}", left.size(), left.size() + gone,
            left.size() == 1 ? "is" : "are", names);
    }

    void Print(
        const char* result, const std::string& sentence, const std::vector<DrainLedger::Left>& left) const
    {
        nlohmann::ordered_json object { { "action", "drain" }, { "result", result }, { "text", sentence } };
        if (!left.empty())
            object["advice"] = DRAIN_ADVICE;
        object["deleted"] = Deleted();
        object["left"] = nlohmann::ordered_json::array();
        for (const auto& each : left)
            object["left"].push_back({ { "address", each.address }, { "came_back", each.hasComeBack } });
        fmt::print("{}\n", object.dump());
    }

    const Session& m_session;
    const int64_t m_settleUs;
    DrainLedger m_ledger;
    bool m_isSettled = false;
};

} // namespace

void AddDrainCommand(CLI::App& app, Session& session)
{
    CLI::App* command = app.add_subcommand("drain", "deletes every receiver, and waits until none is left");
    const auto settleUs = std::make_shared<int64_t>(USUAL_SETTLE_US);
    command
        ->add_option_function<std::string>(
            "--settle",
            [settleUs](const std::string& text) {
                if (!common::ParseDuration(text, *settleUs))
                    throw CLI::ValidationError("--settle", "'" + text + "' is not a time; write 2s or 500ms");
            },
            "the list must stay empty for so long: receivers that ping come back [2s]")
        ->type_name("TIME");
    command->footer("Examples:\n"
                    "  arqctl drain\n"
                    "  arqctl -I 2 drain --settle 5s --timeout 30s\n\n"
                    "--timeout bounds the whole [10s, and 250ms a receiver].\n"
                    "Exit status: 0 none is left, 6 there were none, 1 some are left.\n");
    command->callback([&session, settleUs] {
        session.run = [&session, settleUs] { return Drain(session, *settleUs).Run(); };
    });
}

} // namespace arqctl
