#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "arqctl/cli/exit_status.h"
#include "arqctl/core/statistics.h"
#include "arqctl/proxy/ask.h"
#include "arqctl/proxy/target.h"
#include "arqctl/proxy/tunnel.h"

namespace arqctl {

// What the options in front of a command say, and the command that was chosen. One object for the whole run.
struct Session {
    Target target; // of -I, --socket and --via
    int64_t patienceUs = USUAL_PATIENCE_US; // of --timeout: for one answer of a proxy
    bool isPatienceGiven = false;
    bool isJson = false; // of --json: standard output has JSON only, one object a line, an error included

    // To the target where that is on another machine; one for the whole run.
    std::shared_ptr<Tunnels> tunnels = std::make_shared<Tunnels>();

    // The chosen command, set while the command line is read.
    std::function<ExitStatus()> run;
};

// Says on standard error what is wrong and what to do, with "arqctl: " in front, and with --json also as an object
// {"error": ..., "advice": ..., "status": ...} on standard output. Returns the status.
ExitStatus Fail(
    const Session& session, ExitStatus status, const std::string& problem, const std::string& advice);

ExitStatus StatusOf(Failure failure);

// The same for an exchange that failed.
ExitStatus FailedAnswer(const Session& session, Failure failure);

// Asks the session's proxy, through its tunnel where it has one. The connection is made anew each time.
Answer AskProxy(const Session& session, const std::string& request);

// Its statistics, receivers included. Unlike the answer to List this one is never empty: what ends without a word, or is
// another program, is not taken for a proxy without receivers.
Failure AskStatistics(const Session& session, Statistics& statistics);

// The proxies that a command of several names as its arguments, or the one of -I, --socket and --via in their place: `isOneGiven`
// when one of these was. Anything but Good has been said.
ExitStatus ReadTargets(const Session& session, const std::vector<std::string>& texts, bool isOneGiven,
    std::vector<Target>& targets);

// A request with one reply: Foreign when another one came.
Failure AskFor(const Session& session, const std::string& request, const std::string& reply);

} // namespace arqctl
