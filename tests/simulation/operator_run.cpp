#include "simulation/operator_run.h"

#include <arpa/inet.h>

#include "control/commands.h"
#include "control/impairment.h"
#include "replicator/arq_send_replicator.h"
#include "simulation/failure.h"

namespace simulation {

namespace {

constexpr int64_t FIRST_COMMAND_US = 700000;

} // namespace

OperatorRun::OperatorRun(Machine& machine, const Config& config, Checker& checker, ProxyRun& proxy,
    const std::vector<ReceiverIdentity>& receivers)
    : m_machine(machine),
      m_config(config),
      m_checker(checker),
      m_proxy(proxy),
      m_receivers(receivers),
      m_random(config.seed, Purpose::Operator)
{
}

void OperatorRun::Start()
{
    if (m_config.commandGapUs != 0)
        (void)m_machine.fibers.Start(Control, this);
}

void OperatorRun::Control(void* run)
{
    auto* self = static_cast<OperatorRun*>(run);
    (void)self->m_machine.fibers.Wait(FIRST_COMMAND_US);
    while (self->m_bFaults) {
        self->GiveCommand();
        const int64_t gapUs = self->m_config.commandGapUs;
        (void)self->m_machine.fibers.Wait(self->m_random.Between(gapUs / 2, gapUs * 3 / 2));
    }
}

void OperatorRun::GiveCommand()
{
    constexpr const char* QUERIES[] = { "List", "AllStats", "RxStat", "AllStats ", "list" };
    const int64_t drawn = m_random.Between(0, 99);
    if (drawn < 20)
        AddOrDelete(false);
    else if (drawn < 35)
        AddOrDelete(true);
    else if (drawn < 50 && m_config.switchesImpairment)
        Switch();
    else if (drawn < 94)
        CarryOut(QUERIES[m_random.Between(0, 4)]);
    else
        CarryOut(drawn < 96 ? "StatClear" : (drawn < 98 ? "RxStatClear" : "TxStatClear"));
}

void OperatorRun::CarryOut(const std::string& command)
{
    Reply reply;
    CarryOutCommand(*m_proxy.Replicator(), command.c_str(), reply);
    const std::string word = command.substr(0, command.find(' '));
    if (word == "StatClear" || word == "RxStatClear" || word == "TxStatClear")
        m_checker.OnStatsCleared(word != "TxStatClear", word != "RxStatClear");
    m_checker.Book().Compare();
    const bool isArgument = word == "Add" || word == "Delete";
    const std::string wanted = m_checker.ExpectedReply(isArgument ? command : word);
    REQUIRE_THAT(reply.text == wanted, "\"%s\" is answered \"%s\" instead of \"%s\"", command.c_str(),
        reply.text, wanted.c_str());
}

std::string OperatorRun::AddressOf(const ReceiverIdentity& receiver) const
{
    char text[INET_ADDRSTRLEN] = "";
    const in_addr address { receiver.addressNet };
    (void)inet_ntop(AF_INET, &address, text, sizeof(text));
    return text;
}

// Both go by the address; who has an ID is not found by it.
void OperatorRun::AddOrDelete(bool isDelete)
{
    const auto last = static_cast<int64_t>(m_receivers.size()) - 1;
    const ReceiverIdentity& receiver = m_receivers[static_cast<size_t>(m_random.Between(0, last))];
    if (receiver.streamId != 0)
        return;
    m_machine.Note(Happened::Command, isDelete ? 1 : 0, static_cast<uint64_t>(receiver.index));
    if (isDelete) {
        m_checker.BeginDelete(receiver.index);
        CarryOut("Delete " + AddressOf(receiver));
        m_checker.EndDelete(receiver.index);
    } else {
        m_checker.BeginAdd(receiver.index);
        CarryOut("Add " + AddressOf(receiver));
        m_checker.EndAdd(receiver.index);
    }
}

// What the poll of the control thread does when the file is there.
void OperatorRun::Switch()
{
    Impairment& impair = m_proxy.Replicator()->m_impair;
    if (impair.m_mode != IMPAIRMENT_OFF) {
        impair.m_mode = IMPAIRMENT_OFF;
        m_checker.Impair().SwitchOff();
        m_machine.Note(Happened::Impairment, 0);
        return;
    }
    ImpairmentSettings settings;
    settings.mode = m_random.Chance(300) ? IMPAIRMENT_RANDOM : IMPAIRMENT_FIXED;
    settings.minDrop = static_cast<int32_t>(m_random.Between(1, 8));
    settings.maxDrop = settings.minDrop + 5;
    settings.minDist = static_cast<int32_t>(m_random.Between(2, 150));
    settings.maxDist = settings.minDist + 50;
    ConfigureImpairment(impair, settings);
    if (settings.mode == IMPAIRMENT_RANDOM)
        m_checker.Impair().SwitchOnRandom();
    else
        m_checker.Impair().SwitchOn(settings.minDrop, settings.minDist);
    m_machine.Note(Happened::Impairment, static_cast<uint64_t>(settings.mode),
        static_cast<uint64_t>(settings.minDrop), static_cast<uint64_t>(settings.minDist));
}

} // namespace simulation
