#include "proxy_run.h"

#include <poll.h>
#include <unistd.h>

namespace {

std::string Destinations(int32_t count)
{
    std::string list;
    for (int32_t i = 0; i < count; ++i)
        list += (i == 0 ? "127.0.0." : ",127.0.0.") + std::to_string(i + 2);
    return list;
}

} // namespace

ProxyRun::ProxyRun(Receivers& receivers, uint16_t inputPort, const std::vector<std::string>& moreOptions)
    : m_nInstance(FreeInstance()),
      m_usRequestPort(FreePort())
{
    std::vector<std::string> arguments { TX_PROXY_BIN, "-I", std::to_string(m_nInstance), "-p",
        std::to_string(receivers.Port()), "-r", std::to_string(m_usRequestPort), "-a",
        Destinations(receivers.Count()) };
    arguments.insert(arguments.end(), moreOptions.begin(), moreOptions.end());
    arguments.push_back(std::to_string(inputPort));
    m_pChild = std::make_unique<Child>(arguments);
    WaitUntilForwarding(*m_pChild, receivers, inputPort);
}

ProxyRun::~ProxyRun()
{
    m_pChild.reset();
    (void)unlink(("/dev/arq_tx_ctrl" + std::to_string(m_nInstance)).c_str()); // SIGTERM leaves it behind
}

void WaitUntilForwarding(const Child& child, Receivers& receivers, uint16_t inputPort)
{
    constexpr int TRIES = 300;
    constexpr int WAIT_MS = 50;
    const UniqueFd sender(socket(AF_INET, SOCK_DGRAM, 0));
    const sockaddr_in input = LoopbackAddress(inputPort);
    MediaDatagram probe {};
    FillHeader(probe, 0, 0);
    pollfd last { receivers.Socket(receivers.Count() - 1), POLLIN, 0 };
    for (int i = 0; i < TRIES; ++i) {
        if (!child.IsAlive())
            GiveUp("the process under test ended by itself");
        (void)sendto(
            sender.Get(), &probe, sizeof(probe), 0, reinterpret_cast<const sockaddr*>(&input), sizeof(input));
        if (poll(&last, 1, WAIT_MS) > 0) {
            (void)receivers.Drain([](const Arrival&) {});
            return;
        }
    }
    GiveUp("the process under test forwards nothing");
}
