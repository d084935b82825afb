#include "arqctl/core/proxy_options.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdlib>
#include <string_view>
#include <utility>

#include "arqctl/core/option_words.h"
#include "common/endpoint.h"

namespace arqctl {

namespace {

constexpr std::string_view PROXY_LETTERS = "1:a:b:G:hl:n:p:q:r:uI:N:X:zZ:";

// A whole decimal number as strtol reads it: leading blanks, a sign and an empty text (0) are accepted. The target keeps
// its low bits.
template <typename Number>
bool KeepNumber(const std::string& text, Number& target)
{
    char* end = nullptr;
    const long number = std::strtol(text.c_str(), &end, 10);
    if (*end != '\0')
        return false;
    target = static_cast<Number>(number);
    return true;
}

uint32_t RoundedRing(int32_t wanted)
{
    constexpr uint32_t LARGEST = 1U << 30;
    uint32_t size = 1;
    while (wanted > 0 && size < static_cast<uint32_t>(wanted) && size < LARGEST)
        size *= 2;
    return size;
}

// A ring that is no number is passed over.
void KeepRing(const std::string& text, uint32_t& ring)
{
    int32_t wanted = 0;
    if (KeepNumber(text, wanted))
        ring = RoundedRing(wanted);
}

bool KeepRate(const std::string& text, int64_t& rate)
{
    uint32_t word = 0;
    if (!KeepNumber(text, word))
        return false;
    rate = word;
    return true;
}

// Below 1 there is no pacer.
bool KeepPacing(const std::string& text, int64_t& rate)
{
    int32_t word = 0;
    if (!KeepNumber(text, word))
        return false;
    rate = std::max(word, 0);
    return true;
}

std::vector<std::string> CutAtCommas(std::string_view list)
{
    std::vector<std::string> entries;
    while (!list.empty()) {
        const std::string_view entry = list.substr(0, list.find(','));
        if (!entry.empty())
            entries.emplace_back(entry);
        list.remove_prefix(std::min(entry.size() + 1, list.size()));
    }
    return entries;
}

// A dotted quad as the proxy reads it: 15 characters at most, taken by inet_aton, of four fields; of each, read as a
// decimal number, the low 8 bits count.
bool ReadQuad(const std::string& text, uint32_t& address)
{
    constexpr size_t LONGEST = 15;
    in_addr parsed {};
    if (text.size() > LONGEST || inet_aton(text.c_str(), &parsed) == 0 || std::ranges::count(text, '.') < 3)
        return false;
    address = 0;
    const char* field = text.c_str();
    for (int i = 0; i < 4; ++i) {
        address = address << 8 | (static_cast<uint32_t>(std::strtol(field, nullptr, 10)) & 0xFF);
        while (i < 3 && *field++ != '.') {}
    }
    return true;
}

bool ReadGroup(const std::string& text, std::string& group)
{
    uint32_t address = 0;
    if (!ReadQuad(text, address) || !common::Endpoint { address, 0 }.IsMulticast())
        return false;
    group = common::AddressText(address);
    return true;
}

// What only a whole command line tells.
struct Asked {
    bool isLibrary = false;
    bool isPassword = false;
};

bool TakeOption(const OptionWord& word, ProxyOptions& options, Asked& asked)
{
    uint16_t ignored = 0;
    switch (word.letter) {
    case '1':
        return KeepNumber(word.argument, ignored);
    case 'a':
        options.destinations = CutAtCommas(word.argument);
        return true;
    case 'b':
        return KeepNumber(word.argument, options.unicastPort);
    case 'G':
        return KeepRate(word.argument, options.grossBitRate);
    case 'l':
    case 'N':
        return true;
    case 'n': {
        uint16_t count = 0;
        const bool isNumber = KeepNumber(word.argument, count);
        options.interfaces = count;
        return isNumber;
    }
    case 'p':
        return KeepNumber(word.argument, options.mediaPort);
    case 'q':
        KeepRing(word.argument, options.ringPackets);
        return true;
    case 'r':
        return KeepNumber(word.argument, options.requestPort);
    case 'u':
        options.isRawInput = true;
        return true;
    case 'I':
        return KeepNumber(word.argument, options.instance);
    case 'X':
        return KeepPacing(word.argument, options.pacingBitRate);
    case 'z':
        asked.isLibrary = true;
        return true;
    case 'Z':
        asked.isPassword = !word.argument.empty();
        return true;
    default:
        return false; // -h
    }
}

bool TakePositionals(const std::vector<std::string>& words, ProxyOptions& options)
{
    if (words.empty() || words.size() > 2)
        return false;
    options.listenPort = static_cast<uint16_t>(std::strtol(words[0].c_str(), nullptr, 10));
    if (words.size() == 2 && !ReadGroup(words[1], options.group))
        options.idleAddress = words[1];
    return true;
}

} // namespace

uint16_t LockPort(int instance)
{
    constexpr uint32_t FIRST_PORT = 32123;
    return static_cast<uint16_t>(FIRST_PORT + static_cast<uint32_t>(instance));
}

uint16_t PingPort(const ProxyOptions& options)
{
    return options.unicastPort != 0 && !OutputGroup(options).empty() ? options.unicastPort
                                                                     : options.mediaPort;
}

std::string OutputGroup(const ProxyOptions& options)
{
    std::string group;
    for (const std::string& destination : options.destinations) {
        if (ReadGroup(destination, group))
            break;
    }
    return group;
}

bool ReadProxyOptions(const std::vector<std::string>& arguments, ProxyOptions& options)
{
    CommandWords words;
    if (!SortWords(arguments, PROXY_LETTERS, words))
        return false;
    ProxyOptions read;
    Asked asked;
    for (const OptionWord& word : words.options) {
        if (!TakeOption(word, read, asked))
            return false;
    }
    if (!TakePositionals(words.positionals, read))
        return false;
    read.isEncrypting = asked.isLibrary || asked.isPassword;
    options = std::move(read);
    return true;
}

} // namespace arqctl
