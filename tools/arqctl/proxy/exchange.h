#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "base/unique_fd.h"

namespace arqctl {

// Why there was no reply.
enum class Failure {
    None,
    NoSocket, // no such file: no proxy of this number has run since the machine started
    NotListening, // the file is there, nobody behind it: the proxy has ended
    NotAllowed, // no right to the socket
    NoAnswer, // it did not take the connection, or did not answer, in time
    CutOff, // the connection broke before the reply ended
    TooLong, // more than any reply of a proxy: another program
    Foreign, // a reply that no proxy gives, or the first part of one
    NoDescriptor, // this program's own limits
    // Of another machine's only (see tunnel.h):
    NoSsh, // no such program here
    NoWay, // ssh does not get there: no host, no login, no forwarding
    NotForwarded // ssh gets there, and has no connection to the socket
};

// One request to a control socket and the reply to it, without waiting: for a loop that serves several.
//
// The proxy serves one client at a time, carries a command out once for each read, and once more when a client closes
// with a reply unread. So there is one request a connection, our half is closed behind it, and the reply is read to its
// end. A connection that the full backlog refuses is tried again until the deadline.
//
// Times are microseconds of the monotonic clock. Threads: one thread's own.
class Exchange {
public:
    static constexpr size_t LONGEST_REPLY = 65536;

    Exchange(std::string socketPath, std::string request, int64_t nowUs, int64_t patienceUs);

    bool IsOver() const { return m_isOver; }
    // With IsOver: None means that Reply() is whole; an empty one is a reply too.
    Failure Reason() const { return m_failure; }
    const std::string& Reply() const { return m_reply; }

    // For poll: -1 while there is none to wait for, and then only WakeUs() counts.
    int Fd() const { return m_fd.Get(); }
    short Events() const;
    // When Proceed is to be called at the latest.
    int64_t WakeUs() const { return m_wakeUs; }

    // Goes on as far as it can.
    void Proceed(int64_t nowUs);

    // Process, user and group at the other end, known once the connection stands; pid 0 before, and behind a tunnel the
    // tunnel's.
    int PeerPid() const { return m_nPeerPid; }

private:
    void Connect(int64_t nowUs);
    void Send();
    void Read();
    void End(Failure failure);

    const std::string m_path;
    const std::string m_request;
    const int64_t m_deadlineUs;
    int64_t m_wakeUs;
    UniqueFd m_fd;
    size_t m_nSent = 0;
    std::string m_reply;
    int m_nPeerPid = 0;
    Failure m_failure = Failure::None;
    bool m_isOver = false;
};

} // namespace arqctl
