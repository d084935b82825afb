#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "arqctl/cli/commands.h"
#include "arqctl/cli/remote_command.h"
#include "arqctl/proxy/control_path.h"
#include "arqctl/proxy/instances.h"

namespace arqctl {

namespace {

using Json = nlohmann::ordered_json;

// For scripts, and for people.
struct StateWords {
    const char* word;
    const char* text;
};

StateWords WordsOf(InstanceState state)
{
    switch (state) {
    case InstanceState::Running:
        return { "running", "running" };
    case InstanceState::Silent:
        return { "silent", "does not answer" };
    case InstanceState::NotAllowed:
        return { "not_allowed", "no right to its socket" };
    case InstanceState::Stale:
        return { "stale", "has ended; its socket was left behind" };
    case InstanceState::Foreign:
        return { "foreign", "not a tx_proxy" };
    case InstanceState::NoSocket:
        return { "no_socket", "runs without its control socket" };
    }
    return { "", "" };
}

void AddOptions(Json& object, const ProxyOptions& options)
{
    object["listen_port"] = options.listenPort;
    if (!options.group.empty())
        object["group"] = options.group;
    object["media_port"] = options.mediaPort;
    if (options.unicastPort != 0)
        object["unicast_port"] = options.unicastPort;
    object["request_port"] = options.requestPort;
    object["lock_port"] = LockPort(options.instance);
}

Json ObjectOf(const Instance& instance)
{
    Json object = Json::object();
    if (instance.number)
        object["instance"] = *instance.number;
    if (!instance.socketPath.empty())
        object["socket"] = instance.socketPath;
    object["state"] = WordsOf(instance.state).word;
    if (instance.pid > 0)
        object["pid"] = instance.pid;
    if (!instance.command.empty())
        object["command"] = instance.command;
    if (instance.facts) {
        AddOptions(object, instance.facts->options);
        object["start_time"] = instance.facts->startTime;
    }
    if (instance.state == InstanceState::Running) {
        object["input_bit_rate"] = instance.statistics.receivedBitRate;
        object["receivers"] = instance.statistics.receivers;
    }
    return object;
}

std::string PortsText(const ProxyOptions& options)
{
    std::string text = fmt::format("input {}", options.listenPort);
    if (!options.group.empty())
        text += " of " + options.group;
    text += fmt::format(", media {}, requests {}", options.mediaPort, options.requestPort);
    return options.unicastPort == 0 ? text : text + fmt::format(", pings {}", PingPort(options));
}

// "1: running, 3 receivers, pid 815", and further lines set in.
std::string TextOf(const Instance& instance)
{
    const size_t receivers = instance.statistics.receivers.size();
    std::string text = instance.number ? std::to_string(*instance.number) : Printable(instance.socketPath);
    text += std::string(": ") + WordsOf(instance.state).text;
    if (instance.state == InstanceState::Running)
        text += fmt::format(", {} receiver{}", receivers, receivers == 1 ? "" : "s");
    if (instance.pid > 0)
        text += fmt::format(", pid {}", instance.pid);
    text += "\n";
    if (instance.number && !instance.socketPath.empty()
        && instance.socketPath != UsualControlPath(*instance.number))
        text += "    control socket " + Printable(instance.socketPath) + "\n";
    if (instance.facts)
        text += "    " + PortsText(instance.facts->options) + "\n";
    if (!instance.command.empty())
        text += "    " + instance.command + "\n";
    return text;
}

ExitStatus ShowInstances(const Session& session)
{
    if (session.target.IsRemote())
        return RunThere(session, { "instances" });
    const std::vector<Instance> instances = FindInstances(session.patienceUs);
    bool isOneThere = false;
    Json list = Json::array();
    for (const Instance& instance : instances) {
        isOneThere = isOneThere
            || (instance.state != InstanceState::Stale && instance.state != InstanceState::Foreign);
        list.push_back(ObjectOf(instance));
        if (!session.isJson)
            fmt::print("{}", TextOf(instance));
    }
    if (session.isJson)
        fmt::print(
            "{}\n", Json { { "instances", list } }.dump(-1, ' ', false, Json::error_handler_t::replace));
    if (!isOneThere)
        fmt::print(
            stderr, "arqctl: no proxy runs here\nstart one, or name its machine with --via ssh:HOST\n");
    return isOneThere ? ExitStatus::Good : ExitStatus::NoProxy;
}

} // namespace

void AddInstancesCommand(CLI::App& app, Session& session)
{
    CLI::App* command = app.add_subcommand(
        "instances", "which proxies run on this machine, and what earlier ones left behind");
    command->footer("Examples:\n"
                    "  arqctl instances\n"
                    "  arqctl --via ssh:edge1 instances --json\n\n"
                    "Exit status: 0 a proxy runs, 3 none does.\n");
    command->callback([&session] { session.run = [&session] { return ShowInstances(session); }; });
}

} // namespace arqctl
