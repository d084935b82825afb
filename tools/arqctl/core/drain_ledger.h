#pragma once

#include <set>
#include <string>
#include <vector>

namespace arqctl {

// What became of receivers while all of them are being deleted, by the lists that were seen in turn.
class DrainLedger {
public:
    // The list of receivers as it is now.
    void Take(const std::vector<std::string>& list);

    struct Left {
        std::string address;
        bool hasComeBack
            = false; // it was gone at one time: it pings. Else no command deletes it: it has a stream ID

        bool operator==(const Left&) const = default;
    };

    // What the last list has, and what has come back before, though it may be gone for the moment; each address once.
    std::vector<Left> NotGone() const;
    // All that were seen but those.
    std::vector<std::string> Gone() const;
    const std::vector<std::string>& Seen() const { return m_seen; }

private:
    std::vector<std::string> m_seen; // each once, in the order of its first sight
    std::set<std::string> m_wereGone;
    std::set<std::string> m_haveComeBack;
    std::set<std::string> m_now;
};

} // namespace arqctl
