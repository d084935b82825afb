#include <fmt/format.h>
#include <time.h>

#include <algorithm>
#include <memory>

#include "arqctl/cli/commands.h"
#include "arqctl/cli/remote_command.h"
#include "arqctl/core/checks.h"
#include "arqctl/core/option_words.h"
#include "arqctl/doctor/doctor_report.h"
#include "arqctl/doctor/gather.h"
#include "arqctl/proxy/control_path.h"
#include "common/clock.h"
#include "common/endpoint.h"
#include "common/quantity.h"

namespace arqctl {

namespace {

constexpr int64_t BETWEEN_LOOKS_US = 1'000'000;

struct DoctorOptions {
    std::string start; // of --start
    bool isStart = false;
    bool isOneMeant = false; // -I or --socket
    bool isPathGiven = false; // --socket
    std::string rate; // of --rate
    int payload = 1316; // of --payload
    Expectation expectation;
};

// The words of a command line that somebody may have pasted with the program's name. An instance number among them counts
// more than the one of -I.
bool ReadStart(const std::string& text, int instance, ProxyOptions& options)
{
    std::vector<std::string> words;
    if (!CutWords(text, words))
        return false;
    if (words.empty() || !IsProxyName(words.front()))
        words.insert(words.begin(), "tx_proxy");
    words.insert(words.begin() + 1, "-I" + std::to_string(instance));
    return ReadProxyOptions(words, options);
}

bool ReadExpectation(DoctorOptions& options)
{
    int64_t rate = 0;
    if (!options.rate.empty() && (!common::ParseBitRate(options.rate, rate) || rate == 0))
        return false;
    options.expectation.bitRate = static_cast<double>(rate);
    options.expectation.payload = options.payload;
    return true;
}

void WaitUntil(int64_t timeUs)
{
    const int64_t leftUs = timeUs - common::NowUs();
    if (leftUs <= 0)
        return;
    const timespec left { leftUs / common::US_PER_SECOND, leftUs % common::US_PER_SECOND * 1000 };
    (void)nanosleep(&left, nullptr);
}

std::vector<DoctorFacts> Examine(
    const Session& session, const std::vector<Patient>& patients, const Expectation& expectation)
{
    std::vector<DoctorFacts> all;
    std::vector<Taps> taps;
    for (const Patient& patient : patients) {
        all.push_back(FirstLook(patient, expectation, session.patienceUs));
        taps.push_back(OpenTaps(all.back()));
    }
    for (size_t i = 0; i < all.size(); ++i) {
        DoctorFacts& facts = all[i];
        LookForLoss(facts, BETWEEN_LOOKS_US, session.patienceUs);
        if (facts.isRunning)
            WaitUntil(facts.first.atUs + BETWEEN_LOOKS_US);
        TakeArrivals(facts, taps[i]);
        SecondLook(facts, session.patienceUs);
    }
    return all;
}

ExitStatus StatusFor(Verdict worst)
{
    switch (worst) {
    case Verdict::Fault:
        return ExitStatus::NotDone;
    case Verdict::Warning:
        return ExitStatus::AlreadySo;
    case Verdict::Good:
    case Verdict::NotApplicable:
        break;
    }
    return ExitStatus::Good;
}

ExitStatus Report(const Session& session, const std::vector<DoctorFacts>& all)
{
    Verdict worst = Verdict::Good;
    for (const DoctorFacts& facts : all) {
        const std::vector<Finding> findings = Diagnose(facts);
        worst = std::max(worst, Worst(findings));
        if (session.isJson)
            fmt::print("{}\n", DoctorJson(facts, findings));
        else
            fmt::print("{}{}", &facts == all.data() ? "" : "\n", DoctorText(facts, findings));
    }
    return StatusFor(worst);
}

ExitStatus ExamineStart(const Session& session, const DoctorOptions& options)
{
    Patient patient;
    patient.isRunning = false;
    patient.areOptionsKnown = true;
    if (options.isPathGiven)
        return Fail(session, ExitStatus::Usage, "--socket does not go with --start", "leave --socket out");
    if (!ReadStart(options.start, session.target.instance, patient.options))
        return Fail(session, ExitStatus::Usage,
            "--start '" + options.start + "' are no options that the proxy takes",
            "write them as for tx_proxy: --start '-I 2 -a 10.0.0.1 5000'");
    patient.controlPath = UsualControlPath(patient.options.instance);
    return Report(session, Examine(session, { patient }, options.expectation));
}

ExitStatus ExamineOne(const Session& session, const DoctorOptions& options)
{
    const std::string path = session.target.ControlPath();
    const int instance = session.target.socketPath.empty() ? session.target.instance : 0;
    const Patient patient = PatientAt(path, instance, session.patienceUs);
    if (!patient.isRunning)
        return Fail(session, ExitStatus::NoProxy, "no proxy is there: nothing answers on " + path,
            "start it, or check its start first: arqctl doctor --start 'its options'");
    return Report(session, Examine(session, { patient }, options.expectation));
}

ExitStatus ExamineAll(const Session& session, const DoctorOptions& options)
{
    const std::vector<Patient> patients = PatientsHere();
    if (patients.empty())
        return Fail(session, ExitStatus::NoProxy, "no proxy runs here",
            "start one, or check its start first: arqctl doctor --start 'its options'");
    return Report(session, Examine(session, patients, options.expectation));
}

// The same words for the program on another machine.
std::vector<std::string> WordsOf(const DoctorOptions& options)
{
    std::vector<std::string> words { "doctor" };
    if (options.isStart)
        words.insert(words.end(), { "--start", options.start });
    if (!options.rate.empty())
        words.insert(words.end(), { "--rate", options.rate, "--payload", std::to_string(options.payload) });
    if (!options.expectation.source.empty())
        words.insert(words.end(), { "--source", options.expectation.source });
    return words;
}

ExitStatus Doctor(const Session& session, DoctorOptions& options)
{
    uint32_t address = 0;
    if (!ReadExpectation(options))
        return Fail(session, ExitStatus::Usage, "--rate '" + options.rate + "' is not a rate above 0",
            "write it as 10M or 8Mbit/s");
    if (!options.expectation.source.empty() && !common::ParseAddress(options.expectation.source, address))
        return Fail(session, ExitStatus::Usage,
            "--source '" + options.expectation.source + "' is no IPv4 address",
            "write the sender's address: --source 10.0.0.1");
    if (session.target.IsRemote())
        return RunThere(session, WordsOf(options));
    if (options.isStart)
        return ExamineStart(session, options);
    return options.isOneMeant ? ExamineOne(session, options) : ExamineAll(session, options);
}

} // namespace

void AddDoctorCommand(CLI::App& app, Session& session)
{
    CLI::App* command = app.add_subcommand(
        "doctor", "finds what is wrong with a proxy and its machine, and how to mend it");
    const auto options = std::make_shared<DoctorOptions>();
    command->add_option("--start", options->start, "check the start of a proxy with these options instead")
        ->type_name("OPTIONS");
    command->add_option("--rate", options->rate, "with --start: bit/s of payload that will come in")
        ->type_name("RATE");
    command->add_option("--payload", options->payload, "with --rate: bytes of payload in a packet [1316]")
        ->type_name("BYTES")
        ->check(CLI::Range(1, 65507));
    command->add_option("--source", options->expectation.source, "where the input comes from, for rp-filter")
        ->type_name("ADDRESS");
    command->footer("Without -I all proxies that run here are looked at.\n\n"
                    "Examples:\n"
                    "  arqctl doctor\n"
                    "  arqctl doctor -I 2 --source 10.0.0.1\n"
                    "  arqctl doctor --start '-I 2 -a 10.0.0.7 5000 239.1.1.1' --rate 10M\n\n"
                    "Exit status: 0 all good, 6 warnings only, 1 a fault, 3 no proxy runs.\n");
    command->callback([&app, command, options, &session] {
        options->isStart = command->count("--start") != 0;
        options->isPathGiven = app.count("--socket") != 0;
        options->isOneMeant = app.count("--instance") + app.count("--socket") != 0;
        session.run = [options, &session] { return Doctor(session, *options); };
    });
}

} // namespace arqctl
