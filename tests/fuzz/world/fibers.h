#pragma once

#include <ucontext.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

// The threads of the code under test, run by one thread on virtual time: each has a stack of its own and runs
// until it sleeps or waits. The same input so gives the same run, and no time passes.
//
// Threads: the one that made it; "the caller" is whoever runs outside of all fibers.
class Fibers {
public:
    using Entry = void* (*)(void* argument);

    Fibers() = default;
    Fibers(const Fibers&) = delete;
    Fibers& operator=(const Fibers&) = delete;

    // A fiber that starts at the caller's next Run.
    void Start(Entry entry, void* argument);

    // Called by a fiber: comes back at `untilMs`, or earlier, after Wake, if it waits for datagrams. Called outside
    // of all fibers: only time passes.
    void Pause(uint64_t untilMs, bool waitsForDatagrams);
    bool IsInside() const { return m_pCurrent != nullptr; }

    // Called by the caller: runs whoever waits for datagrams, and whoever is due up to `untilMs`, in the order of
    // time.
    void Wake();
    void Run(uint64_t untilMs);

    uint64_t NowMs() const { return m_nNowMs; }
    size_t Count() const { return m_fibers.size(); } // that have not ended

private:
    struct Fiber {
        Entry entry;
        void* argument;
        std::unique_ptr<char[]> stack;
        ucontext_t context;
        void* fakeStack;
        uint64_t wakeMs;
        bool waitsForDatagrams;
        bool hasEnded;
    };

    static void Body(unsigned high, unsigned low);
    Fiber* Earliest() const;
    void SwitchTo(Fiber& fiber);
    void SwitchBack(Fiber& fiber);

    std::vector<std::unique_ptr<Fiber>> m_fibers;
    std::vector<std::unique_ptr<char[]>> m_freeStacks;
    Fiber* m_pCurrent = nullptr;
    ucontext_t m_caller {};
    const void* m_pCallerStack = nullptr;
    size_t m_nCallerStackBytes = 0;
    uint64_t m_nNowMs = 0;
};
