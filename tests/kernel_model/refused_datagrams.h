#pragma once

#include <netinet/in.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <vector>

#include "kernel_model/socket_kernel.h"

namespace kernel_model {

// Datagrams that were refused and have to be tried again, for each stream in their order. So a datagram is expected
// once, whatever it takes until it has left. `Token` is what the checker that expected it knows about it, with an
// Owner(): the stream that it belongs to. Several streams may have one destination.
//
// Threads: one.
template <typename Token>
class RefusedDatagrams {
public:
    // Takes a message that was tried. onFirst(bytes, count) is called for each datagram that was not tried before and
    // returns its token, onLeft(token, count) for each that leaves. Null, or what is wrong with it.
    template <typename OnFirst, typename OnLeft>
    const char* Take(const Attempt& attempt, Fate fate, OnFirst onFirst, OnLeft onLeft);

    // The datagrams of a stream that must be tried again.
    size_t Count(const sockaddr_in& destination, int owner) const;
    bool IsEmpty() const;
    void Forget() { m_waiting.clear(); }

private:
    struct Refused {
        std::vector<uint8_t> bytes;
        bool mustCome;
        Token token;
    };
    using Queue = std::deque<Refused>;

    static uint64_t KeyOf(const sockaddr_in& destination)
    {
        return static_cast<uint64_t>(destination.sin_addr.s_addr) << 16 | destination.sin_port;
    }
    // The place of those bytes in the queue from `at` on; its end when they were not tried before.
    static size_t Find(const Queue& queue, size_t at, const uint8_t* bytes, size_t count)
    {
        while (at < queue.size()
            && !std::equal(bytes, bytes + count, queue[at].bytes.begin(), queue[at].bytes.end()))
            ++at;
        return at;
    }
    // Whether the stream has one that must come before that place.
    static bool HasEarlier(const Queue& queue, size_t from, size_t place, int owner)
    {
        for (size_t i = from; i < place; ++i) {
            if (queue[i].mustCome && queue[i].token.Owner() == owner)
                return true;
        }
        return false;
    }

    std::map<uint64_t, Queue> m_waiting; // by destination, in the order in which they were refused
};

template <typename Token>
template <typename OnFirst, typename OnLeft>
const char* RefusedDatagrams<Token>::Take(const Attempt& attempt, Fate fate, OnFirst onFirst, OnLeft onLeft)
{
    Queue& queue = m_waiting[KeyOf(attempt.destination)];
    if (!attempt.MayBeSecond())
        std::erase_if(queue, [](const Refused& refused) { return !refused.mustCome; });
    const char* wrong = nullptr;
    size_t at = 0; // behind the place of the message's last datagram
    attempt.message.ForEachDatagram([&](const uint8_t* bytes, size_t count) {
        const size_t place = Find(queue, at, bytes, count);
        if (place == queue.size()) // onFirst may ask for what is waiting, so this one is not yet
            queue.push_back({ { bytes, bytes + count }, true, onFirst(bytes, count) });
        if (HasEarlier(queue, at, place, queue[place].token.Owner()))
            wrong = "what was refused comes again, before anything else to that receiver";
        if (fate == Fate::Left)
            onLeft(queue[place].token, count);
        at = place;
        if (fate == Fate::Left || fate == Fate::Lost)
            queue.erase(queue.begin() + static_cast<std::ptrdiff_t>(place));
        else
            queue[at++].mustCome = fate == Fate::MustComeAgain;
    });
    if (queue.empty())
        m_waiting.erase(KeyOf(attempt.destination));
    return wrong;
}

template <typename Token>
size_t RefusedDatagrams<Token>::Count(const sockaddr_in& destination, int owner) const
{
    const auto found = m_waiting.find(KeyOf(destination));
    if (found == m_waiting.end())
        return 0;
    return static_cast<size_t>(std::count_if(found->second.begin(), found->second.end(),
        [owner](const Refused& refused) { return refused.mustCome && refused.token.Owner() == owner; }));
}

template <typename Token>
bool RefusedDatagrams<Token>::IsEmpty() const
{
    return std::all_of(m_waiting.begin(), m_waiting.end(), [](const auto& waiting) {
        const Queue& queue = waiting.second;
        return std::none_of(
            queue.begin(), queue.end(), [](const Refused& refused) { return refused.mustCome; });
    });
}

} // namespace kernel_model
