#pragma once

#include <poll.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "arqctl/proxy/ask.h"

namespace arqctl {

// What one proxy answered, or why it did not.
struct PolledAnswer {
    size_t index = 0; // of the path
    Answer answer;
    int64_t atUs = 0;
    int64_t tookUs = 0; // since it was asked
};

// Asks several proxies AllStats, each once a period and never more often: a proxy that does not answer holds none of the
// others up, and is not asked again before its question has ended.
//
// Times are microseconds of the monotonic clock. Threads: one thread's own.
class Poller {
public:
    Poller(std::vector<std::string> socketPaths, int64_t periodUs, int64_t patienceUs);

    // Another list of proxies. Those that stay in it go on as they were, under their new index; a question to one that
    // does not is given up.
    void Watch(std::vector<std::string> socketPaths);

    // What to wait for: adds the descriptors, and returns when Proceed is to be called at the latest (never without
    // paths: the largest time).
    int64_t Wait(std::vector<pollfd>& descriptors) const;
    // Goes on as far as it can; what has ended since.
    std::vector<PolledAnswer> Proceed(int64_t nowUs);

private:
    struct Asked {
        std::string path;
        int64_t nextUs = 0; // asked at once, and then a period after each beginning
        std::unique_ptr<Exchange> exchange;
    };

    std::vector<Asked> m_asked;
    const int64_t m_periodUs;
    const int64_t m_patienceUs;
};

} // namespace arqctl
