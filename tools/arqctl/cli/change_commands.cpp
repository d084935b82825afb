// add and del: what became of a receiver is told by the lists before and after, since the proxy answers OK whatever
// happens.
#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>

#include "arqctl/cli/commands.h"
#include "arqctl/proxy/receiver_change.h"
#include "common/endpoint.h"

namespace arqctl {

namespace {

struct Change {
    ReceiverAction action;
    std::string who;
    ReceiverChangeResult result;
};

const char* WordOf(Outcome outcome)
{
    switch (outcome) {
    case Outcome::Done:
        return "done";
    case Outcome::Already:
        return "already";
    case Outcome::Refused:
        return "refused";
    }
    return "";
}

ExitStatus StatusOfOutcome(Outcome outcome)
{
    switch (outcome) {
    case Outcome::Done:
        return ExitStatus::Good;
    case Outcome::Already:
        return ExitStatus::AlreadySo;
    case Outcome::Refused:
        return ExitStatus::NotDone;
    }
    return ExitStatus::NotDone;
}

// "10.0.0.1 was deleted; it stands there once more".
std::string SentenceOf(const Change& change)
{
    const std::string text = OutcomeText(change.action, change.who, change.result.outcome);
    const auto& after = change.result.after;
    const auto left = std::count(after.begin(), after.end(), change.who);
    if (change.action == ReceiverAction::Delete && change.result.outcome == Outcome::Done && left > 0)
        return fmt::format(
            "{}; it stands there {} more", text, left == 1 ? "once" : fmt::format("{} times", left));
    return text;
}

std::string AdviceOf(const Change& change)
{
    uint32_t address = 0;
    if (change.action == ReceiverAction::Delete && change.result.outcome == Outcome::Refused
        && !common::ParseAddress(change.who, address))
        return "the proxy's machine may not know the name, or none of the receivers has it: delete by an address of "
               "'arqctl list'";
    return OutcomeAdvice(change.action, change.result.outcome);
}

void PrintObject(const Change& change, const std::string& sentence, const std::string& advice)
{
    nlohmann::ordered_json object { { "action", change.action == ReceiverAction::Add ? "add" : "del" },
        { "receiver", change.who }, { "result", WordOf(change.result.outcome) }, { "text", sentence } };
    if (!advice.empty())
        object["advice"] = advice;
    object["receivers"] = change.result.after;
    fmt::print("{}\n", object.dump());
}

ExitStatus Tell(const Session& session, const Change& change)
{
    const std::string sentence = SentenceOf(change);
    const std::string advice = AdviceOf(change);
    if (session.isJson)
        PrintObject(change, sentence, advice);
    if (change.result.outcome == Outcome::Refused)
        fmt::print(stderr, "arqctl: {}\n{}\n", sentence, advice);
    else if (!session.isJson)
        fmt::print("{}\n", sentence);
    return StatusOfOutcome(change.result.outcome);
}

ReceiverChangeResult CarryOut(const Session& session, ReceiverAction action, const std::string& who)
{
    ReceiverChangeResult result;
    result.failure = session.tunnels->Open(session.target, session.patienceUs);
    if (result.failure != Failure::None)
        return result;
    result = ChangeReceiver(action, session.tunnels->PathOf(session.target), who, session.patienceUs);
    Answer answer { result.failure, "OK", 0 };
    session.tunnels->Diagnose(session.target, answer, session.patienceUs);
    result.failure = answer.failure;
    return result;
}

// Of several: refused if one was, already if all were.
ExitStatus Joined(ExitStatus all, ExitStatus one)
{
    if (all == ExitStatus::NotDone || one == ExitStatus::NotDone)
        return ExitStatus::NotDone;
    return all == one ? all : ExitStatus::Good;
}

ExitStatus ChangeAll(const Session& session, ReceiverAction action, const std::vector<std::string>& receivers)
{
    bool isFirst = true;
    ExitStatus status = ExitStatus::Good;
    for (const std::string& who : receivers) {
        const Change change { action, who, CarryOut(session, action, who) };
        if (change.result.failure != Failure::None)
            return FailedAnswer(session, change.result.failure);
        const ExitStatus one = Tell(session, change);
        status = isFirst ? one : Joined(status, one);
        isFirst = false;
    }
    return status;
}

// One word of the command line may hold several, with commas between them as in the proxy's -a.
void SplitReceivers(const std::vector<std::string>& words, std::vector<std::string>& receivers)
{
    for (std::string word : words) {
        for (size_t comma = word.find(','); comma != std::string::npos; comma = word.find(',')) {
            receivers.push_back(word.substr(0, comma));
            word.erase(0, comma + 1);
        }
        receivers.push_back(word);
    }
    for (const std::string& receiver : receivers)
        if (!IsReceiverWord(receiver))
            throw CLI::ValidationError(
                "ADDRESS", "'" + Printable(receiver) + "' is not an address or the name of a host");
}

void AddChange(CLI::App& app, Session& session, ReceiverAction action, const char* name, const char* text,
    const char* footer)
{
    CLI::App* command = app.add_subcommand(name, text);
    const auto receivers = std::make_shared<std::vector<std::string>>();
    command
        ->add_option_function<std::vector<std::string>>(
            "ADDRESS",
            [receivers](const std::vector<std::string>& words) { SplitReceivers(words, *receivers); },
            "addresses, or names that the proxy's machine looks up")
        ->type_name("ADDRESS")
        ->required();
    command->footer(footer);
    command->callback([&session, action, receivers] {
        session.run = [&session, action, receivers] { return ChangeAll(session, action, *receivers); };
    });
}

} // namespace

void AddAddCommand(CLI::App& app, Session& session)
{
    AddChange(app, session, ReceiverAction::Add, "add", "sends the stream to one more receiver",
        "Examples:\n"
        "  arqctl add 10.0.0.1\n"
        "  arqctl -I 2 add studio-b.example.net 10.0.0.2\n\n"
        "Exit status: 0 added, 6 it was there before, 1 refused.\n");
}

void AddDelCommand(CLI::App& app, Session& session)
{
    AddChange(app, session, ReceiverAction::Delete, "del",
        "tells a receiver to stop and sends it nothing more",
        "Examples:\n"
        "  arqctl del 10.0.0.1\n\n"
        "Exit status: 0 deleted, 6 it was not there, 1 refused: receivers that joined\n"
        "with a stream ID cannot be deleted. One that pings on comes back at once.\n");
}

} // namespace arqctl
