// Command lines, the arguments separated by line ends: options and positional arguments are read or refused with
// a message, and what is read is what stands there.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "arq/arq_settings.h"
#include "fuzz/world/input_reader.h"
#include "fuzz/world/require.h"
#include "main/options.h"
#include "main/proxy_context.h"

namespace {

constexpr size_t MOST_ARGUMENTS = 40;

// An argument vector as main gets it; each text in memory of its own size.
struct CommandLine {
    explicit CommandLine(std::string_view text)
    {
        Add("tx_proxy");
        while (!text.empty() && texts.size() < MOST_ARGUMENTS) {
            const std::string_view argument = text.substr(0, text.find('\n'));
            text.remove_prefix(std::min(argument.size() + 1, text.size()));
            Add(argument);
        }
        for (const auto& one : texts)
            pointers.push_back(one.get());
        pointers.push_back(nullptr);
    }

    void Add(std::string_view argument)
    {
        argument = argument.substr(0, argument.find('\0'));
        texts.push_back(std::make_unique<char[]>(argument.size() + 1));
        std::copy(argument.begin(), argument.end(), texts.back().get());
    }

    int Count() const { return static_cast<int>(texts.size()); }

    // Whether the text is an argument or the end of one.
    bool Has(std::string_view wanted) const
    {
        return std::any_of(texts.begin(), texts.end(), [&](const auto& one) {
            const std::string_view argument(one.get());
            return argument.size() >= wanted.size()
                && argument.substr(argument.size() - wanted.size()) == wanted;
        });
    }

    std::vector<std::unique_ptr<char[]>> texts;
    std::vector<char*> pointers;
};

void CheckSettings(const CommandLine& line, const ProxyContext& context, const MainSettings& settings)
{
    Require(g_nArqBufferCount > 0 && (g_nArqBufferCount & (g_nArqBufferCount - 1)) == 0,
        "rings are powers of two");
    Require(g_nDebugLevel < 10, "the level has one digit");
    Require(
        *context.destAddress == '\0' || line.Has(context.destAddress), "the destination is what was given");
    Require(settings.password == nullptr || (*settings.password != '\0' && line.Has(settings.password)),
        "the password is what was given");
    Require(context.udpInputMode == 0 || context.udpInputMode == 1, "a mode is on or off");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    InputReader input(data, size);
    CommandLine line(input.Rest());
    ProxyContext context;
    MainSettings settings;
    g_nArqBufferCount = 4096;
    g_nDebugLevel = 0;
    const ParseResult options = ParseOptions(line.Count(), line.pointers.data(), context, settings);
    Require(options.goOn || options.exitStatus == 0 || options.exitStatus == EXIT_BAD_ARGUMENTS,
        "a refusal has its status");
    CheckSettings(line, context, settings);
    if (!options.goOn)
        return 0;
    const ParseResult positionals = ParsePositionals(line.Count(), line.pointers.data(), context);
    Require(positionals.goOn || positionals.exitStatus == EXIT_BAD_ARGUMENTS, "so has this one");
    Require(positionals.goOn || context.multicastGroup == 0, "what is refused sets nothing");
    return 0;
}
