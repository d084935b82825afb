#include "arqctl/proxy/impair_switch.h"

#include "arqctl/core/loss_texts.h"
#include "arqctl/proxy/control_path.h"
#include "arqctl/proxy/process.h"

namespace arqctl {

namespace {

ImpairOutcome FailedWith(const Trouble& trouble)
{
    ImpairOutcome outcome;
    outcome.text = trouble.problem;
    outcome.advice = trouble.advice;
    return outcome;
}

// One order as it is carried out. Threads: one thread's own.
class LossSwitch {
public:
    LossSwitch(ImpairFiles& files, const LossLook& look, const ImpairOrder& order)
        : m_files(files),
          m_look(look),
          m_order(order)
    {
    }

    ImpairOutcome Run()
    {
        if (!Prepare() || !FindState() || IsNothingToDo())
            return m_outcome;
        if (m_order.isOn && m_outcome.finding.state == LossState::On && !Flip())
            return m_outcome; // new settings are read when it is switched on: off first
        if (!WriteSettings() || !Flip())
            return m_outcome;
        Confirm();
        return m_outcome;
    }

private:
    // False: the outcome says why.
    bool Stop(ImpairResult result, const std::string& text, const std::string& advice = "")
    {
        m_outcome.result = result;
        m_outcome.text = text;
        m_outcome.advice = advice;
        return false;
    }
    bool Did(const Trouble& trouble)
    {
        return trouble.problem.empty() || Stop(ImpairResult::Failed, trouble.problem, trouble.advice);
    }

    bool Prepare();
    bool FindState();
    bool IsNothingToDo();
    bool WriteSettings();
    bool Flip();
    bool Look(const LossSettings& settings);
    void Confirm();
    bool FlipOnceMore();

    ImpairFiles& m_files;
    LossLook m_look;
    const ImpairOrder m_order;
    ImpairOutcome m_outcome;
    std::string m_text; // of the settings file
    LossSettings m_wanted;
};

bool LossSwitch::Prepare()
{
    if (!Did(m_files.Lock(m_order.lockPatienceUs)) || !Did(m_files.AwaitNoToggle(m_order.takePatienceUs))
        || !Did(m_files.ReadSettings(m_text)))
        return false;
    m_outcome.settings = ReadLossSettings(m_text);
    m_wanted = m_order.settings.value_or(m_outcome.settings);
    const std::string problem = m_order.isOn ? LossSettingsProblem(m_wanted) : "";
    if (problem.empty())
        return true;
    return Stop(
        ImpairResult::Refused, "these settings will not do: " + problem, "give --mode, --drop and --dist");
}

bool LossSwitch::Look(const LossSettings& settings)
{
    m_look.periodPackets = LongestLossPeriod(settings);
    const ObservedLoss observed = ObserveLoss(m_look);
    m_outcome.finding = observed.finding;
    m_outcome.failure = observed.failure;
    if (observed.failure == Failure::None)
        return true;
    return Stop(ImpairResult::NoAnswer, ProblemText(observed.failure, m_look.socketPath),
        AdviceText(observed.failure, m_look.socketPath));
}

bool LossSwitch::FindState()
{
    if (!Look(m_outcome.settings))
        return false;
    const LossFinding& finding = m_outcome.finding;
    if (finding.state != LossState::Unknown || m_order.isBlind)
        return true;
    return Stop(ImpairResult::Refused, "nothing was switched, whether it is on is " + LossText(finding),
        LossDoubtAdvice(finding.doubt));
}

bool LossSwitch::IsNothingToDo()
{
    const LossFinding& finding = m_outcome.finding;
    const bool isAsWanted = m_order.isOn ? finding.state == LossState::On && m_wanted == m_outcome.settings
                                         : finding.state == LossState::Off;
    if (isAsWanted)
        (void)Stop(ImpairResult::AlreadySo, "it was already " + LossText(finding));
    return isAsWanted;
}

bool LossSwitch::WriteSettings()
{
    if (!m_order.isOn || m_wanted == m_outcome.settings)
        return true;
    if (!Did(m_files.WriteSettings(WithLossSettings(m_text, m_wanted))))
        return false;
    m_outcome.settings = m_wanted;
    return true;
}

bool LossSwitch::Flip()
{
    Trouble trouble;
    const Toggled toggled = m_files.Toggle(m_order.takePatienceUs, trouble);
    if (toggled == Toggled::Taken)
        return true;
    return Stop(toggled == Toggled::NotTaken ? ImpairResult::NotDone : ImpairResult::Failed, trouble.problem,
        trouble.advice);
}

// A proxy may have been on with settings that withhold nothing; then it is off now.
bool LossSwitch::FlipOnceMore()
{
    return m_order.isOn && m_outcome.finding.state == LossState::Off && Flip() && Look(m_wanted);
}

void LossSwitch::Confirm()
{
    if (!Look(m_wanted))
        return;
    if (m_order.isOn && m_outcome.finding.state == LossState::Off && !FlipOnceMore())
        return;
    const LossFinding& finding = m_outcome.finding;
    const LossState wanted = m_order.isOn ? LossState::On : LossState::Off;
    if (finding.state == wanted)
        (void)Stop(ImpairResult::Done, "it is " + LossText(finding));
    else if (finding.state == LossState::Unknown)
        (void)Stop(ImpairResult::Unconfirmed, "it was switched, whether it is on is " + LossText(finding));
    else
        (void)Stop(ImpairResult::NotDone, "it was switched, and it is " + LossText(finding),
            "somebody else may have switched it, too: try again");
}

} // namespace

ImpairOutcome SwitchLoss(ImpairFiles& files, const LossLook& look, const ImpairOrder& order)
{
    return LossSwitch(files, look, order).Run();
}

ImpairOutcome FindLoss(ImpairFiles& files, const LossLook& look)
{
    ImpairOutcome outcome;
    std::string text;
    (void)files.ReadSettings(text); // not to be read: as if it had none
    outcome.settings = ReadLossSettings(text);
    LossLook with = look;
    with.periodPackets = LongestLossPeriod(outcome.settings);
    const ObservedLoss observed = ObserveLoss(with);
    outcome.finding = observed.finding;
    outcome.failure = observed.failure;
    outcome.result = observed.failure == Failure::None ? ImpairResult::Done : ImpairResult::NoAnswer;
    const bool isThere = observed.failure == Failure::None;
    outcome.text = isThere ? LossText(observed.finding) : ProblemText(observed.failure, look.socketPath);
    outcome.advice
        = isThere ? LossDoubtAdvice(observed.finding.doubt) : AdviceText(observed.failure, look.socketPath);
    return outcome;
}

std::optional<int> InstanceOf(const Target& target, int64_t patienceUs)
{
    if (target.socketPath.empty())
        return target.instance;
    if (!target.IsRemote()) {
        const Answer answer = Ask(target.socketPath, "List", patienceUs);
        const auto facts = answer.peerPid != 0 ? FactsOf(answer.peerPid) : std::nullopt;
        if (facts)
            return facts->options.instance;
    }
    return InstanceInPath(target.socketPath);
}

namespace {

template <typename Operation>
ImpairOutcome WithLocalFiles(const Target& target, Operation operation)
{
    const auto instance = InstanceOf(target, USUAL_PATIENCE_US);
    if (!instance)
        return FailedWith({ "which instance answers on " + target.ControlPath() + " is not known",
            "name it by its number" });
    LossLook look;
    look.socketPath = target.ControlPath();
    LocalImpairFiles files(RunFolderOf(look.socketPath), *instance);
    return operation(files, look);
}

} // namespace

ImpairOutcome SwitchLocalLoss(const Target& target, const ImpairOrder& order)
{
    return WithLocalFiles(target,
        [&order](ImpairFiles& files, const LossLook& look) { return SwitchLoss(files, look, order); });
}

ImpairOutcome FindLocalLoss(const Target& target)
{
    return WithLocalFiles(
        target, [](ImpairFiles& files, const LossLook& look) { return FindLoss(files, look); });
}

} // namespace arqctl
