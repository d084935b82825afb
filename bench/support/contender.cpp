#include "contender.h"

#include <unistd.h>

#include "feed.h"
#include "figures.h"
#include "media.h"
#include "paced_stream.h"
#include "udp.h"

Contender::Contender(const Entry& entry, Outlet& outlet, int32_t nReceivers)
    : m_name(entry.name),
      m_outlet(outlet),
      m_nReceivers(nReceivers),
      m_usInputPort(FreePort()),
      m_usDestPort(FreePort()),
      m_bLearnt(entry.kind == Entry::Kind::LEARNT)
{
    outlet.Open(nReceivers, m_usDestPort);
    m_pChild = std::make_unique<Child>(CommandLine(entry));
    WaitUntilForwarding();
}

Contender::~Contender()
{
    m_pChild.reset();
    if (m_nInstance != 0)
        (void)unlink(("/dev/arq_tx_ctrl" + std::to_string(m_nInstance)).c_str()); // SIGTERM leaves it behind
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
    const std::string addresses = AddressList(m_outlet, m_nReceivers);
    std::vector<std::string> words { entry.program };
    words.insert(words.end(), entry.words.begin(), entry.words.end());
    const auto add
        = [&](const std::vector<std::string>& more) { words.insert(words.end(), more.begin(), more.end()); };
    if (entry.kind == Entry::Kind::FLOOR) {
        add({ input, destPort, addresses });
        return words;
    }
    m_nInstance = FreeInstance();
    add({ "-I", std::to_string(m_nInstance), "-p", destPort, "-r", std::to_string(FreePort()) });
    if (!m_bLearnt)
        add({ "-a", addresses });
    add({ input });
    return words;
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
