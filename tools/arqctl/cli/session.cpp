#include "arqctl/cli/session.h"

#include <fmt/format.h>

#include <cstdio>
#include <nlohmann/json.hpp>

#include "arqctl/core/reply.h"

namespace arqctl {

ExitStatus StatusOf(Failure failure)
{
    switch (failure) {
    case Failure::None:
        return ExitStatus::Good;
    case Failure::NoSocket:
    case Failure::NotListening:
    case Failure::NotAllowed:
    case Failure::NoWay:
    case Failure::NotForwarded:
        return ExitStatus::NoProxy;
    case Failure::NoSsh:
    case Failure::NoDescriptor:
        return ExitStatus::NoStart;
    case Failure::NoAnswer:
    case Failure::CutOff:
    case Failure::TooLong:
    case Failure::Foreign:
        return ExitStatus::BadAnswer;
    }
    return ExitStatus::BadAnswer;
}

ExitStatus Fail(
    const Session& session, ExitStatus status, const std::string& problem, const std::string& advice)
{
    fmt::print(stderr, "arqctl: {}\n", problem);
    if (!advice.empty())
        fmt::print(stderr, "{}\n", advice);
    if (session.isJson) {
        const nlohmann::ordered_json object { { "error", problem }, { "advice", advice },
            { "status", static_cast<int>(status) } };
        fmt::print("{}\n", object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace));
    }
    return status;
}

ExitStatus FailedAnswer(const Session& session, Failure failure)
{
    const Trouble trouble = session.tunnels->Explain(session.target, failure);
    return Fail(session, StatusOf(failure), trouble.problem, trouble.advice);
}

Answer AskProxy(const Session& session, const std::string& request)
{
    Answer answer;
    answer.failure = session.tunnels->Open(session.target, session.patienceUs);
    if (!answer.IsThere())
        return answer;
    answer = Ask(session.tunnels->PathOf(session.target), request, session.patienceUs);
    session.tunnels->Diagnose(session.target, answer, session.patienceUs);
    return answer;
}

Failure AskStatistics(const Session& session, Statistics& statistics)
{
    const Answer answer = AskProxy(session, "AllStats");
    if (!answer.IsThere())
        return answer.failure;
    return ParseStatistics(answer.reply, statistics) ? Failure::None : Failure::Foreign;
}

ExitStatus ReadTargets(const Session& session, const std::vector<std::string>& texts, bool isOneGiven,
    std::vector<Target>& targets)
{
    if (isOneGiven && !texts.empty())
        return Fail(session, ExitStatus::Usage,
            "proxies are named twice: by -I, --socket or --via and as arguments",
            "name all of them as arguments: 2, ssh:HOST/2 or the path of a socket");
    for (const std::string& text : texts) {
        Target target;
        if (!ParseTarget(text, target))
            return Fail(session, ExitStatus::Usage, "'" + text + "' is no proxy",
                "write 2, ssh:HOST/2 or the path of a socket");
        targets.push_back(target);
    }
    if (isOneGiven)
        targets.push_back(session.target);
    return ExitStatus::Good;
}

Failure AskFor(const Session& session, const std::string& request, const std::string& reply)
{
    const Answer answer = AskProxy(session, request);
    if (!answer.IsThere())
        return answer.failure;
    return answer.reply == reply ? Failure::None : Failure::Foreign;
}

} // namespace arqctl
