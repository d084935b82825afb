#pragma once

#include <cstdint>

#include "base/plain_word.h"

// Chooses which of a stream's sockets, one per network interface, sends the next datagram.
//
// Threads: the sending threads and the listen thread step it at once, without a lock. They may upset the
// order of turns, but the index always stays within the sockets there are.
class SocketChooser {
public:
    static constexpr int32_t MAX_SOCKETS = 4; // interfaces per stream

    // Starts again at socket 0 of `count` (1 to 4). With two or more, datagrams are shared out between
    // sockets 0 and 1 by weight: `percent` for socket 0 and the rest for socket 1; above 100 they share
    // evenly. With one socket there is nothing to choose.
    void UseInterfaces(int32_t count, uint32_t percent);

    int32_t Count() const { return m_nCount; }
    int32_t Current() const { return m_nCurrent; }

    // Moves on after a datagram: by credit when the traffic is split, in turn otherwise.
    void Advance();

private:
    int32_t NextByCredit();

    PlainWord<int32_t> m_nCount { 1 };
    PlainWord<int32_t> m_nCurrent { 0 };
    PlainWord<bool> m_bSplit { false };
    PlainWord<int32_t> m_nWeight0 { 0 };
    PlainWord<int32_t> m_nWeight1 { 0 };
    PlainWord<int32_t> m_nCredit0 { 0 };
    PlainWord<int32_t> m_nCredit1 { 0 };
    PlainWord<int32_t> m_nStep { 0 }; // credit that one datagram costs
};
