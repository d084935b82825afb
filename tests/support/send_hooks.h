#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "support/test_packets.h"

namespace test_support {

// A message that the code under test hands to the C library to be sent.
struct SentMessage {
    Bytes bytes;
    size_t segmentBytes = 0; // of the pieces of a train; 0: it is one datagram
    bool mayWait = true; // the call waits while the send buffer is full
    bool isNamed = false; // the receiver's address is given
    uint16_t port = 0; // of that address, in host order
    bool isRouted = false; // the source address is left to routing, whatever the socket's own is
};

enum class SendKind { Send, SendTo, SendMsg, SendMmsg };

struct SendCall {
    SendKind kind;
    int fd;
    int flags;
    std::vector<SentMessage> messages;
};

// Notes the calls that send, and may refuse messages of them in the kernel's place; the others go to the kernel. As
// there, a call with several messages sends what comes before the first that is refused, and fails only when that
// is the first of all.
//
// Threads: made, asked and destroyed by one thread, whose calls alone it sees. One at a time.
class WatchedSends {
public:
    // The error number that a message is refused with; 0 lets it pass. Asked once a message and call, in order.
    using Refusal = std::function<int(const SentMessage&)>;

    explicit WatchedSends(Refusal refusal = {});
    WatchedSends(const WatchedSends&) = delete;
    WatchedSends& operator=(const WatchedSends&) = delete;
    ~WatchedSends();

    const std::vector<SendCall>& Calls() const { return m_calls; }
    // How many messages each call had.
    std::vector<size_t> MessagesOfEach() const;
    // How many datagrams each message of call `index` stands for.
    std::vector<size_t> DatagramsOfEach(size_t index) const;

    // For the calls themselves: notes one; how many of its messages may pass, and the error for the next one.
    struct Verdict {
        size_t passing;
        int error;
    };
    Verdict OnCall(SendCall call);

private:
    Refusal m_refusal;
    std::vector<SendCall> m_calls;
};

// Refuses the first `count` messages.
WatchedSends::Refusal RefuseFirst(int count, int error);
// Refuses trains: all of them, or the first `count`.
WatchedSends::Refusal RefuseTrains(int error, int count = 1 << 20);

} // namespace test_support
