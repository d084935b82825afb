// Addresses as texts: a dotted quad is read as four numbers or refused, everything else is a name, and a list of
// destinations is cut at its commas alone. No name leaves the process.
#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/world/kernel.h"
#include "fuzz/world/require.h"
#include "input/address.h"
#include "replicator/destinations.h"

namespace {

// Names that begin with "h" are known, those with "hm" as groups.
in_addr_t LookUp(const char* name)
{
    if (name[0] != 'h')
        return 0;
    const uint32_t first = name[1] == 'm' ? 0xEF000000U : 0xC6336400U;
    return htonl(first + static_cast<uint8_t>(std::strlen(name)));
}

// What a text of four plain numbers from 0 to 255 means.
bool IsPlainQuad(const std::string& text, in_addr_t* address)
{
    uint32_t whole = 0;
    size_t at = 0;
    for (int field = 0; field < 4; ++field) {
        size_t digits = 0;
        uint32_t number = 0;
        for (; at < text.size() && text[at] >= '0' && text[at] <= '9' && digits < 4; ++at, ++digits)
            number = number * 10 + static_cast<uint32_t>(text[at] - '0');
        const bool hasZero = digits > 1 && text[at - digits] == '0';
        if (digits == 0 || digits > 3 || number > 255 || hasZero)
            return false;
        whole = whole << 8 | number;
        if (field < 3 && (at == text.size() || text[at++] != '.'))
            return false;
    }
    *address = htonl(whole);
    return at == text.size();
}

void CheckText(const char* text)
{
    constexpr size_t LONGEST = 15;
    in_addr_t read = 0;
    in_addr_t plain = 0;
    const bool isQuad = ReadDottedQuad(text, &read);
    if (IsPlainQuad(text, &plain))
        Require(isQuad && read == plain, "a dotted quad is read");
    if (isQuad)
        Require(std::strlen(text) <= LONGEST && std::count(text, text + std::strlen(text), '.') >= 3,
            "nothing but a dotted quad is read");
    Require(parseDottedQuad(text) == (isQuad ? read : 0), "what is no quad is no address");
    const in_addr_t expected = isQuad && read != 0 ? read : LookUp(text);
    Require(resolveHost(text) == expected, "what is no quad is a name");
    sockaddr_in address {};
    Require(resolveToSockaddr(text, &address) == (expected != 0), "a known host is told");
    Require(address.sin_addr.s_addr == expected && address.sin_family == AF_INET && address.sin_port == 0,
        "a host is its address, without a port");
}

std::vector<std::string> Cut(std::string_view list)
{
    std::vector<std::string> texts;
    while (!list.empty()) {
        const std::string_view text = list.substr(0, list.find(','));
        list.remove_prefix(std::min(text.size() + 1, list.size()));
        if (!text.empty())
            texts.emplace_back(text);
    }
    return texts;
}

void CheckList(const char* list)
{
    std::vector<std::string> unicast;
    std::string firstGroup;
    for (const std::string& text : Cut(list)) {
        const in_addr_t address = resolveHost(text.c_str());
        const bool isGroup = (ntohl(address) >> 28) == 14;
        if (address != 0 && !isGroup)
            unicast.push_back(text);
        if (isGroup && firstGroup.empty())
            firstGroup = text;
    }
    std::vector<std::string> added;
    ForEachUnicast(list, [&](const char* text) { added.emplace_back(text); });
    Require(added == unicast, "every unicast destination is taken, in order");
    Require(FirstMulticast(list).text == firstGroup, "the first group is taken");
}

} // namespace

// The text lies in memory of its own size, so that whoever reads behind it is seen.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static Kernel kernel;
    kernel.onLookUp = LookUp;
    const Kernel::Entered entered(kernel);
    const auto text = std::make_unique<char[]>(size + 1);
    std::copy(data, data + size, text.get());
    CheckList(text.get());
    for (const std::string& one : Cut(text.get())) {
        const auto copy = std::make_unique<char[]>(one.size() + 1);
        std::copy(one.begin(), one.end(), copy.get());
        CheckText(copy.get());
    }
    return 0;
}
