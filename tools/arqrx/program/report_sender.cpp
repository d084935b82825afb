#include "arqrx/program/report_sender.h"

#include <sys/socket.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "common/clock.h"

namespace arqrx {

namespace {

constexpr int64_t LOOK_UP_AGAIN_US = 60 * common::US_PER_SECOND;

bool IsLoopback(uint32_t address)
{
    return address >> 24 == 127;
}

} // namespace

bool ReportSender::Open(const ReportAddress& server, uint32_t local, std::string& problem)
{
    m_server = server;
    m_nLocal = local;
    m_nLookedUpUs = common::NowUs();
    if (!m_address.LookUp(server.host, problem)) {
        problem = "cannot find the server of --report: " + problem;
        return false;
    }
    if (!Connect(problem)) {
        problem = "cannot report to " + server.Server() + ": " + problem;
        return false;
    }
    return true;
}

// A machine without a way to the server now may have one later: only a socket must be had.
bool ReportSender::Connect(std::string& problem)
{
    const common::Endpoint peer { m_address.Address(), m_server.port };
    if (!m_socket.Open()) {
        problem = m_socket.Problem();
        return false;
    }
    if (m_nLocal != 0 && IsLoopback(m_nLocal) == IsLoopback(peer.address))
        (void)m_socket.Bind({ m_nLocal, 0 });
    if (!m_socket.Connect(peer))
        m_problem = m_socket.Problem();
    return true;
}

void ReportSender::Reconnect()
{
    std::string ignored; // without a socket nothing is sent
    (void)Connect(ignored);
}

void ReportSender::Follow(int64_t nowUs)
{
    if (m_address.HasMoved())
        Reconnect();
    if (nowUs - m_nLookedUpUs < LOOK_UP_AGAIN_US)
        return;
    m_nLookedUpUs = nowUs;
    m_address.LookUpAgain();
}

void ReportSender::Send(const std::string& text, int64_t nowUs)
{
    Follow(nowUs);
    if (text.empty() || TrySend(text))
        return;
    const int error = errno;
    if (m_problem.empty())
        m_problem = "cannot reach " + m_server.Server() + ": " + std::generic_category().message(error);
    if (error == ECONNREFUSED)
        (void)TrySend(text); // that was the answer to the one before; this one has not left
    else if (error == EDESTADDRREQ || error == ENOTCONN)
        Reconnect(); // there was no way to the server
}

bool ReportSender::TrySend(const std::string& text) const
{
    return send(m_socket.Fd(), text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL) >= 0;
}

std::string ReportSender::TakeProblem()
{
    const std::string problem = std::exchange(m_problem, "");
    if (problem.empty() || std::exchange(m_bTold, true))
        return "";
    return "reports do not arrive: " + problem + "; the stream goes on\n";
}

} // namespace arqrx
