#include "arqctl/serve/worker_thread.h"

#include <csignal>
#include <utility>

namespace arqctl {

std::thread StartWorker(std::function<void()> work)
{
    sigset_t all;
    sigset_t before;
    (void)sigfillset(&all);
    (void)pthread_sigmask(SIG_SETMASK, &all, &before); // a thread begins with its maker's mask
    std::thread worker(std::move(work));
    (void)pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return worker;
}

} // namespace arqctl
