#include "arqctl/doctor/doctor_report.h"

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>

namespace arqctl {

namespace {

constexpr size_t VERDICT_WIDTH = std::string_view("not applicable").size();

std::string HeadLine(const DoctorFacts& facts)
{
    const std::string name
        = facts.areOptionsKnown ? fmt::format("instance {}", facts.options.instance) : facts.control.path;
    if (!facts.isRunning)
        return name + ", to be started";
    return facts.pid == 0 ? name : fmt::format("{}, process {}", name, facts.pid);
}

std::string FindingLine(const Finding& finding, size_t nameWidth)
{
    std::string line = fmt::format("{:<{}}  {:<{}}  {}", VerdictText(finding.verdict), VERDICT_WIDTH,
        finding.name, nameWidth, finding.text);
    if (!finding.advice.empty())
        line += ". " + finding.advice;
    if (!finding.command.empty())
        line += ".  $ " + finding.command;
    return line;
}

std::string CountLine(const std::vector<Finding>& findings)
{
    const auto count
        = [&](Verdict verdict) { return std::ranges::count(findings, verdict, &Finding::verdict); };
    const auto warnings = count(Verdict::Warning), faults = count(Verdict::Fault);
    return fmt::format("{} good, {} warning{}, {} fault{}, {} not applicable", count(Verdict::Good), warnings,
        warnings == 1 ? "" : "s", faults, faults == 1 ? "" : "s", count(Verdict::NotApplicable));
}

} // namespace

std::string DoctorText(const DoctorFacts& facts, const std::vector<Finding>& findings)
{
    size_t nameWidth = 0;
    for (const Finding& finding : findings)
        nameWidth = std::max(nameWidth, finding.name.size());
    std::string text = HeadLine(facts) + "\n";
    for (const Finding& finding : findings)
        text += FindingLine(finding, nameWidth) + "\n";
    return text + CountLine(findings) + "\n";
}

std::string DoctorJson(const DoctorFacts& facts, const std::vector<Finding>& findings)
{
    nlohmann::ordered_json object { { "socket", facts.control.path }, { "running", facts.isRunning } };
    if (facts.areOptionsKnown)
        object["instance"] = facts.options.instance;
    if (facts.pid != 0)
        object["pid"] = facts.pid;
    object["verdict"] = VerdictText(Worst(findings));
    object["findings"] = nlohmann::ordered_json::array();
    for (const Finding& finding : findings) {
        nlohmann::ordered_json one { { "name", finding.name }, { "verdict", VerdictText(finding.verdict) },
            { "text", finding.text } };
        if (!finding.advice.empty())
            one["advice"] = finding.advice;
        if (!finding.command.empty())
            one["command"] = finding.command;
        object["findings"].push_back(std::move(one));
    }
    return object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

} // namespace arqctl
