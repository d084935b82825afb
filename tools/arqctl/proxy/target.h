#pragma once

#include <string>
#include <string_view>

namespace arqctl {

// Which proxy is meant: an instance number, here or on another machine, or a control socket by its path.
struct Target {
    int instance = 1; // 0 with a socketPath that was given
    std::string via; // "": this machine; else the HOST of ssh:HOST
    std::string socketPath; // "": the usual one of the instance

    bool operator==(const Target&) const = default;
    bool IsRemote() const { return !via.empty(); }
    // The control socket on the proxy's own machine: "/dev/arq_tx_ctrl1". On this one it is looked for each time, because
    // a proxy that is started anew may have it elsewhere.
    std::string ControlPath() const;
    // For people and as an ID in pages and metrics: "1", "edge1/2", "/tmp/x/ctrl".
    std::string Name() const;
};

// "2", "ssh:HOST/2", or a path that begins with "/". False leaves the target as it was.
bool ParseTarget(std::string_view text, Target& target);

} // namespace arqctl
