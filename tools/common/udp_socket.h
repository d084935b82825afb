#pragma once

#include "base/unique_fd.h"
#include "common/endpoint.h"

#include <cstdint>
#include <string>

namespace common {

// A UDP socket over IPv4; reads and sends never wait. Operations that can fail return false and say why in Problem(),
// as the end of a sentence. Threads: one thread opens and sets up; the descriptor may then be read by one thread and
// written by another.
class UdpSocket {
public:
    // Makes the socket without binding it. What stood open before is closed.
    bool Open();
    // Several sockets may have the address (receivers of one group on one machine). Before Bind.
    bool ShareAddress();
    // Port 0: the system chooses; Local() tells which.
    bool Bind(const Endpoint& local);
    // Only this peer is heard from then on, and Send without an address goes to it.
    bool Connect(const Endpoint& peer);
    // Room in the kernel for what is not read or not sent yet. The system may grant less, which is no failure.
    void SetBuffers(int receiveBytes, int sendBytes);
    // Joins a group on the interface that has this address or this name ("eth1"; empty: the system chooses). A socket
    // that is bound to the group's address hears nothing but the group.
    bool JoinGroup(uint32_t group, const std::string& networkInterface);
    // Interface (as above), time to live and whether this machine hears it too, for what is sent to groups.
    bool SetGroupOutput(const std::string& networkInterface, int timeToLive, bool loopBack);
    void Close() { m_fd.Reset(); }

    bool IsOpen() const { return m_fd.IsValid(); }
    int Fd() const { return m_fd.Get(); }
    // The address it is bound to; all 0 if it is not.
    Endpoint Local() const;
    const std::string& Problem() const { return m_problem; }
    // The same after a Bind that failed, with what its user may do about it.
    std::string BindProblem() const;

private:
    bool Fail(const std::string& what); // reads errno
    bool SetOption(int level, int name, const void* value, unsigned sizeBytes, const std::string& what);

    UniqueFd m_fd;
    std::string m_problem;
    int m_nError = 0;
};

} // namespace common
