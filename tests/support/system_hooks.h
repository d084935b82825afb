#pragma once

#include <cstdint>
#include <functional>
#include <set>
#include <vector>

namespace test_support {

// What FailCalls can make fail; each stands for one function of the C library. Polls without descriptors never
// fail and are not counted.
enum class SystemCall { CreateThread, OpenSocket, Duplicate, LookUpHost, Poll, Connect, ReceiveTogether };

// Makes calls of one kind by the calling thread fail with an error number, from the first-th to the last-th
// after the object was made. One at a time a kind and thread.
//
// Threads: made, asked and destroyed by one thread; the calls of others are left alone.
class FailCalls {
public:
    FailCalls(SystemCall call, int error, int first = 1, int last = 1);
    FailCalls(const FailCalls&) = delete;
    FailCalls& operator=(const FailCalls&) = delete;
    ~FailCalls();

    // What happens with each call that fails, in the middle of it.
    void OnFailure(std::function<void()> action);

    // How many have failed so far.
    int Count() const;
    // How many there were, with those that did not fail.
    int Calls() const;

private:
    SystemCall m_call;
};

// Cuts the waits of the code under test to a millisecond and notes how long they were to be: the sleeps
// (nanosleep) of every thread, and every thread's polls. The thread that makes the object keeps its polls whole
// unless it asks for the cut: it may itself wait for datagrams.
//
// Threads: made and destroyed by the test's thread; any may ask. One made while there is another adds nothing.
class ShortWaits {
public:
    enum class OwnPolls { Whole, Cut };

    explicit ShortWaits(OwnPolls ownPolls = OwnPolls::Whole);
    ShortWaits(const ShortWaits&) = delete;
    ShortWaits& operator=(const ShortWaits&) = delete;
    ~ShortWaits();

    // The sleeps of the calling thread so far, in milliseconds and in order; those that are shorter are left
    // out.
    std::vector<uint32_t> SleepsMs(uint32_t shortestMs = 2) const;
    // Likewise the sleeps of all other threads together, the shortest ones too.
    std::vector<uint32_t> OthersSleepsMs() const;
    // Lengths that any thread's sleeps were to have.
    std::set<uint32_t> AnySleepsMs(uint32_t shortestMs = 2) const;
    // Time-outs that the polls which were cut were to have, those without descriptors left out.
    std::set<int> PollsMs() const;
};

} // namespace test_support
