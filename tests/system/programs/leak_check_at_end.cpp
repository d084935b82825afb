// Looks for leaks when SIGTERM ends the process, as it ends every proxy of the system tests: the sanitizer's
// own check comes only with a normal exit, and a proxy never exits normally. Linked into the proxy of the
// address-sanitizer build and of no other.
//
// Threads: none of its own, so that limits on threads stay true; the check runs in the signal handler, on the
// main thread. The sanitizer takes the allocator's lock, so whoever sends SIGTERM waits until the main thread
// sleeps: asleep it holds no such lock. Other threads may do what they like, they are stopped for the look.

#include <csignal>
#include <cstdlib>

#include <sanitizer/lsan_interface.h>
#include <unistd.h>

namespace {

constexpr int LEAKS_FOUND = 23; // the sanitizer's own exit status
constexpr size_t LOST_BYTES = 4321;

void EndWithLeakCheck(int signalNumber)
{
    if (__lsan_do_recoverable_leak_check() != 0)
        _exit(LEAKS_FOUND);
    (void)raise(signalNumber); // by now the default: the process ends as it would have without us
}

// Proves that leaks are found: with this variable set a block is lost on purpose.
__attribute__((noinline)) void LoseABlock()
{
    void* volatile block = malloc(LOST_BYTES);
    block = nullptr;
    (void)block;
}

__attribute__((constructor)) void Install()
{
    if (getenv("TX_PROXY_LOSE_A_BLOCK") != nullptr)
        LoseABlock();
    struct sigaction action = {};
    action.sa_handler = EndWithLeakCheck;
    action.sa_flags = static_cast<int>(SA_RESETHAND | SA_NODEFER);
    (void)sigaction(SIGTERM, &action, nullptr);
}

} // namespace
