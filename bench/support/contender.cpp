#include "contender.h"

#include <unistd.h>

#include <csignal>
#include <utility>

#include "feed.h"
#include "figures.h"
#include "media.h"
#include "paced_stream.h"
#include "udp.h"

namespace {

// RIST wants an even port and uses the next one as well.
uint16_t FreeEvenPort()
{
    const uint16_t port = FreePort();
    return port % 2 == 0 ? port : FreeEvenPort();
}

void Replace(std::string& text, const std::string& what, const std::string& by)
{
    for (size_t place = text.find(what); place != std::string::npos;
         place = text.find(what, place + by.size()))
        text.replace(place, what.size(), by);
}

// What stands before and behind the address and the port of each receiver.
struct ListForm {
    const char* between;
    const char* before;
    const char* behind;
};

std::string ReceiverList(const Outlet& outlet, int32_t count, uint16_t port, const ListForm& form)
{
    std::string list;
    for (int32_t i = 0; i < count; ++i) {
        list += i == 0 ? "" : form.between;
        list += form.before + AddressText(outlet.AddressOf(i)) + ":" + std::to_string(port) + form.behind;
    }
    return list;
}

} // namespace

Contender::Contender(const Entry& entry, Outlet& outlet, int32_t nReceivers)
    : m_name(entry.name),
      m_outlet(outlet),
      m_nReceivers(nReceivers),
      m_usInputPort(FreePort()),
      m_usDestPort(FreeEvenPort()),
      m_usLinkPort(FreeEvenPort()),
      m_bLearnt(entry.kind == Entry::Kind::LEARNT),
      m_bMayRest(entry.kind == Entry::Kind::PEER && entry.receiver.empty())
{
    outlet.Open(nReceivers, m_usDestPort);
    if (!entry.receiver.empty())
        m_pReceiver = std::make_unique<Child>(Filled(entry.receiver));
    m_pChild = std::make_unique<Child>(CommandLine(entry));
    WaitUntilForwarding();
    if (m_pReceiver)
        WaitUntilSettled();
    Rest();
}

Contender::~Contender()
{
    Work(); // so that it can end
    m_pChild.reset();
    if (m_nInstance != 0)
        (void)unlink(("/dev/arq_tx_ctrl" + std::to_string(m_nInstance)).c_str()); // SIGTERM leaves it behind
}

std::vector<pid_t> Contender::Pids() const
{
    std::vector<pid_t> pids { m_pChild->Pid() };
    if (m_pReceiver)
        pids.push_back(m_pReceiver->Pid());
    return pids;
}

void Contender::Rest() const
{
    if (m_bMayRest)
        (void)kill(m_pChild->Pid(), SIGSTOP);
}

void Contender::Work() const
{
    if (m_bMayRest)
        (void)kill(m_pChild->Pid(), SIGCONT);
}

void Contender::StayKnown()
{
    if (m_bLearnt)
        m_outlet.Ping(m_nReceivers, m_usDestPort, m_usDestPort);
}

std::vector<std::string> Contender::CommandLine(const Entry& entry)
{
    const std::string input = std::to_string(m_usInputPort);
    const std::string destPort = std::to_string(m_usDestPort);
    std::vector<std::string> words { entry.program };
    const auto add
        = [&](const std::vector<std::string>& more) { words.insert(words.end(), more.begin(), more.end()); };
    add(Filled(entry.words));
    switch (entry.kind) {
    case Entry::Kind::PEER:
        break;
    case Entry::Kind::FLOOR:
        add({ input, destPort, AddressList(m_outlet, m_nReceivers) });
        break;
    case Entry::Kind::PROXY:
    case Entry::Kind::LEARNT:
        m_nInstance = FreeInstance();
        m_usRequestPort = FreePort();
        add({ "-I", std::to_string(m_nInstance), "-p", destPort, "-r", std::to_string(m_usRequestPort) });
        if (!m_bLearnt)
            add({ "-a", AddressList(m_outlet, m_nReceivers) });
        add({ input });
    }
    return words;
}

std::vector<std::string> Contender::Filled(const std::vector<std::string>& words) const
{
    const std::pair<std::string, std::string> meanings[] {
        { "{input}", std::to_string(m_usInputPort) },
        { "{link}", std::to_string(m_usLinkPort) },
        { "{first}", AddressText(m_outlet.AddressOf(0)) },
        { "{clients}", ReceiverList(m_outlet, m_nReceivers, m_usDestPort, { ",", "", "" }) },
        { "{tee}",
            ReceiverList(m_outlet, m_nReceivers, m_usDestPort, { "|", "[f=data]udp://", "?pkt_size=1328" }) },
    };
    std::vector<std::string> filled = words;
    for (std::string& word : filled) {
        for (const auto& [name, meaning] : meanings)
            Replace(word, name, meaning);
    }
    return filled;
}

void Contender::WaitUntilForwarding()
{
    constexpr int TRIES = 300;
    constexpr int64_t WAIT_NS = 20000000;
    Feed probe(m_usInputPort, 1, 1);
    for (int i = 0; i < TRIES; ++i) {
        if (!m_pChild->IsAlive())
            GiveUp(m_name + " ended by itself");
        StayKnown();
        const int64_t before = m_outlet.Delivered(sizeof(MediaDatagram));
        probe.SendOne();
        SleepUntil(WallNs() + WAIT_NS);
        if (m_outlet.Delivered(sizeof(MediaDatagram)) - before >= m_nReceivers)
            return;
    }
    GiveUp(m_name + " does not forward to all receivers");
}

// A receiver that gives out packets late still has some of the probes.
void Contender::WaitUntilSettled()
{
    constexpr int64_t SETTLE_NS = 1200000000;
    int64_t before = -1;
    for (int64_t now = 0; now != before; now = m_outlet.Delivered(sizeof(MediaDatagram))) {
        before = now;
        SleepUntil(WallNs() + SETTLE_NS);
    }
}
