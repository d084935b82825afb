#include "arqlink/texts.h"

#include "arqlink/core/settings_text.h"
#include "common/quantity.h"

#include <charconv>
#include <fstream>
#include <limits>
#include <stdexcept>

namespace arqlink {

namespace {

constexpr size_t MOST_PAIRS = 64;
constexpr uint64_t MOST_CLIENTS = 10'000;
constexpr int64_t SMALLEST_MEMORY_BYTES = 100'000; // the largest datagram has room in it
constexpr size_t LARGEST_SCRIPT_BYTES = 10'000'000;

// What is wrong, as a sentence without its full stop.
class WrongUsage : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

common::Endpoint LookUp(const std::string& text)
{
    common::Endpoint endpoint;
    std::string problem;
    if (!common::LookUpEndpoint(text, endpoint, problem))
        throw WrongUsage(problem);
    if (endpoint.IsMulticast())
        throw WrongUsage(
            "'" + text + "' is a multicast group; a line has two ends with addresses of their own");
    return endpoint;
}

Pair ReadPair(const std::string& text)
{
    const size_t equals = text.find('=');
    if (equals == std::string::npos)
        throw WrongUsage("'" + text + "' is not LISTEN=TARGET, such as 127.0.0.1:11000=10.0.0.1:10000");
    const Pair pair { LookUp(text.substr(0, equals)), LookUp(text.substr(equals + 1)) };
    if (pair.target.port == 0 || pair.target.address == 0)
        throw WrongUsage(
            "'" + text + "' has no address and port to go on to; write for example 10.0.0.1:10000");
    return pair;
}

int64_t ReadTime(const char* option, const std::string& text, int64_t otherwiseUs, bool bMayBeZero)
{
    int64_t timeUs = 0;
    if (text.empty())
        return otherwiseUs;
    if (!common::ParseDuration(text, timeUs) || (timeUs == 0 && !bMayBeZero))
        throw WrongUsage(std::string(option) + " '" + text + "' is not a time such as 30s or 500ms");
    return timeUs;
}

uint64_t ReadNumber(
    const char* option, const std::string& text, uint64_t otherwise, uint64_t lowest, uint64_t highest)
{
    uint64_t number = 0;
    if (text.empty())
        return otherwise;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || stop != end || number < lowest || number > highest)
        throw WrongUsage(std::string(option) + " '" + text + "' is not a number from "
            + std::to_string(lowest) + " to " + std::to_string(highest));
    return number;
}

void ReadSettings(const Texts& texts, RelayOptions& relay)
{
    for (const std::string direction : DIRECTIONS) {
        for (const SettingName& setting : SettingNames()) {
            const std::string name = direction + std::string(setting.name);
            const std::string& value = texts.settings.at(name);
            std::string problem;
            if (value.empty())
                continue;
            if ((direction != "up-" && !ApplySetting(relay.down, setting.name, value, problem))
                || (direction != "down-" && !ApplySetting(relay.up, setting.name, value, problem)))
                throw WrongUsage(std::string("--").append(direction).append(problem));
        }
    }
}

void ReadSources(const Texts& texts, RelayOptions& relay)
{
    std::string problem;
    if (!texts.source.empty() && !texts.sourcePool.empty())
        throw WrongUsage("--source and --source-pool exclude each other");
    if (!texts.source.empty()) {
        uint32_t address = 0;
        if (!common::ParseAddress(texts.source, address))
            throw WrongUsage("--source '" + texts.source + "' is not an address such as 10.0.0.2");
        relay.sources = SourcePool(address);
    }
    if (!texts.sourcePool.empty() && !relay.sources.Parse(texts.sourcePool, problem))
        throw WrongUsage("--source-pool " + problem);
}

std::string ReadFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    std::string text(LARGEST_SCRIPT_BYTES + 1, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<size_t>(file.gcount()));
    if (!file.eof() || file.bad())
        throw WrongUsage("cannot read the script " + path + "; is it there, and a text of less than 10 MB?");
    return text;
}

void ReadScript(const std::string& path, Script& script)
{
    std::string problem;
    if (!path.empty() && !script.Parse(ReadFile(path), problem))
        throw WrongUsage(path + ", " + problem);
}

void ReadPairs(const Texts& texts, RelayOptions& relay)
{
    if (texts.pairs.empty())
        throw WrongUsage("say from where to where: LISTEN=TARGET, such as 127.0.0.1:11000=10.0.0.1:10000");
    if (texts.pairs.size() > MOST_PAIRS)
        throw WrongUsage("there may be " + std::to_string(MOST_PAIRS) + " pairs of LISTEN=TARGET at most");
    for (const std::string& pair : texts.pairs)
        relay.pairs.push_back(ReadPair(pair));
}

void ReadMemory(const std::string& text, RelayOptions& relay)
{
    int64_t sizeBytes = 0;
    if (text.empty())
        return;
    if (!common::ParseSize(text, sizeBytes) || sizeBytes < SMALLEST_MEMORY_BYTES)
        throw WrongUsage("--memory '" + text + "' is not a size such as 256M, at least 100k");
    relay.memoryBytes = static_cast<size_t>(sizeBytes);
}

void ReadAll(const Texts& texts, Options& options)
{
    RelayOptions& relay = options.relay;
    ReadPairs(texts, relay);
    ReadSettings(texts, relay);
    ReadSources(texts, relay);
    ReadMemory(texts.memory, relay);
    relay.seed = ReadNumber("--seed", texts.seed, relay.seed, 0, std::numeric_limits<uint64_t>::max());
    relay.maxClients = ReadNumber("--clients", texts.clients, relay.maxClients, 1, MOST_CLIENTS);
    relay.idleUs = ReadTime("--idle", texts.idle, relay.idleUs, false);
    options.durationUs = ReadTime("--duration", texts.duration, options.durationUs, false);
    options.intervalUs = ReadTime("--interval", texts.interval, options.intervalUs, true);
    ReadScript(texts.script, options.script);
}

} // namespace

bool ReadTexts(const Texts& texts, Options& options, std::string& problem)
{
    try {
        ReadAll(texts, options);
        return true;
    } catch (const WrongUsage& wrong) {
        problem = wrong.what();
        return false;
    }
}

} // namespace arqlink
