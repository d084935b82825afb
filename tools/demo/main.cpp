#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <variant>

#include "demo/encoder_feed.h"
#include "demo/feed.h"
#include "demo/folder.h"
#include "demo/format.h"
#include "demo/options.h"
#include "demo/sandbox.h"
#include "demo/show.h"
#include "demo/signals.h"

namespace {

// The proxy that the environment names, or the one beside this program.
std::string ProxyBinary()
{
    if (const char* const named = std::getenv("TX_PROXY_BIN"); named != nullptr && *named != '\0')
        return named;
    std::array<char, PATH_MAX> self;
    const ssize_t length = readlink("/proc/self/exe", self.data(), self.size());
    const std::string path(self.data(), length > 0 ? static_cast<size_t>(length) : 0);
    return path.substr(0, path.rfind('/') + 1) + "tx_proxy";
}

bool EnterSandboxOrSay(bool wanted)
{
    std::string problem = "not wanted";
    if (wanted && demo::EnterSandbox(problem))
        return true;
    std::printf("no sandbox (%s): on free ports of this machine's own loopback; all works%s\n",
        problem.c_str(), geteuid() == 0 ? "" : " but the proxy's own figures");
    return false;
}

// Null when the picture that is wanted cannot be had.
std::unique_ptr<demo::Feed> MakeFeed(const demo::Options& options)
{
    if (options.source == demo::Source::BuiltIn)
        return demo::MakeBuiltInFeed();
    if (const auto tool = demo::FindVideoTool())
        return demo::MakeEncoderFeed(*tool, options.seconds);
    return options.source == demo::Source::Automatic ? demo::MakeBuiltInFeed() : nullptr;
}

} // namespace

// NOLINTNEXTLINE(bugprone-exception-escape): there are no exceptions in the demo
int main(int count, char** arguments)
{
    const auto parsed = demo::ParseOptions(count, arguments);
    if (const auto* const ending = std::get_if<demo::Ending>(&parsed)) {
        (void)std::fputs(ending->text.c_str(), ending->status == 0 ? stdout : stderr);
        return ending->status;
    }
    const auto& options = std::get<demo::Options>(parsed);
    demo::Signals signals;
    demo::Folder folder;
    if (!folder.Open(options.folder)) {
        std::printf("FAILED: cannot write to %s: %s; --out names another folder\n", options.folder.c_str(),
            demo::ErrorText(errno).c_str());
        return 1;
    }
    const std::string proxyBinary
        = ProxyBinary(); // before the sandbox: after it our own path may not be ours to name
    const bool hasSandbox = EnterSandboxOrSay(options.wantsSandbox);
    const auto feed = MakeFeed(options);
    if (!feed) {
        std::printf(
            "FAILED: --picture needs ffmpeg or GStreamer; as root ./demo --picture installs ffmpeg\n");
        return 1;
    }
    demo::Show show(options, proxyBinary, hasSandbox, *feed, folder, signals);
    return show.Run();
}
