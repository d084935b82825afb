#include "arqctl/cli/session.h"

#include <fmt/format.h>

#include <cstdio>
#include <nlohmann/json.hpp>

namespace arqctl {

namespace {

ExitStatus StatusOf(Failure failure)
{
    switch (failure) {
    case Failure::None: return ExitStatus::Good;
    case Failure::NoSocket:
    case Failure::NotListening:
    case Failure::NotAllowed:
    case Failure::NoWay:
    case Failure::NotForwarded: return ExitStatus::NoProxy;
    case Failure::NoSsh:
    case Failure::NoDescriptor: return ExitStatus::NoStart;
    case Failure::NoAnswer:
    case Failure::CutOff:
    case Failure::TooLong: return ExitStatus::BadAnswer;
    }
    return ExitStatus::BadAnswer;
}

} // namespace

ExitStatus Fail(const Session& session, ExitStatus status, const std::string& problem, const std::string& advice)
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
    const std::string path = session.target.ControlPath();
    return Fail(session, StatusOf(failure), ProblemText(failure, path), AdviceText(failure, path));
}

Answer AskProxy(const Session& session, const std::string& request)
{
    return Ask(session.target.ControlPath(), request, session.patienceUs);
}

} // namespace arqctl
