#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace arqctl {

// An address that is, or was, in a proxy's list of receivers.
struct WatchedReceiver {
    std::string address;
    bool isReceiving = true; // in the list now
    int64_t sinceUs = 0; // when it came or went
};

// Remembers for an hour who has left a proxy's list, so that a receiver that is gone can be told from one that never was.
// Times are microseconds of the monotonic clock. Threads: one thread's own.
class ReceiverWatch {
public:
    static constexpr int64_t REMEMBERED_US = 3'600'000'000;
    static constexpr size_t MOST_GONE = 200; // the oldest are forgotten first
    // For so many answers: then one that stands in the list has come again.
    static constexpr int ANSWERS_AFTER_DELETION = 5;

    // The list of an answer; an address that stands in it twice counts once.
    void Take(const std::vector<std::string>& list, int64_t nowUs);
    // It was deleted on purpose: once it has left it is not missed.
    void Forget(const std::string& address);

    // Sorted by address.
    const std::vector<WatchedReceiver>& All() const { return m_receivers; }

private:
    struct Deleted {
        std::string address;
        int answersLeft = ANSWERS_AFTER_DELETION;
    };
    void DropOld(int64_t nowUs);

    std::vector<WatchedReceiver> m_receivers;
    std::vector<Deleted> m_deleted;
};

} // namespace arqctl
