#include "arqctl/core/network_text.h"

#include <arpa/inet.h>

#include "arqctl/core/fields.h"

namespace arqctl {

namespace {

using Fields = std::vector<std::string_view>;

bool ReadRange(std::string_view text, PortRange& range)
{
    const size_t dash = text.find('-');
    const std::string_view last = dash == std::string_view::npos ? text : text.substr(dash + 1);
    return ReadWhole(text.substr(0, dash), range.first) && ReadWhole(last, range.last);
}

// The four numbers of a line "Uid: real effective saved files".
bool ReadFileId(const Fields& fields, uint32_t& id)
{
    constexpr size_t FILES = 4;
    return fields.size() > FILES && ReadWhole(fields[FILES], id);
}

void ReadRights(std::string_view hex, UserFacts& user)
{
    constexpr unsigned DAC_OVERRIDE = 1, NET_BIND_SERVICE = 10;
    uint64_t rights = 0;
    (void)ReadWhole(hex, rights, 16);
    user.mayWriteAnywhere = (rights >> DAC_OVERRIDE & 1) != 0;
    user.mayBindLowPorts = (rights >> NET_BIND_SERVICE & 1) != 0;
}

void ReadGroups(const Fields& fields, UserFacts& user)
{
    for (const std::string_view field : fields) {
        uint32_t group = 0;
        if (ReadWhole(field, group))
            user.groups.push_back(group);
    }
}

} // namespace

std::vector<Membership> ReadMemberships(std::string_view text)
{
    std::vector<Membership> memberships;
    std::string interface;
    (void)TakeLine(text); // the heads
    while (!text.empty()) {
        const std::string_view line = TakeLine(text);
        const Fields fields = CutFields(line);
        uint32_t groupNet = 0;
        if (fields.size() > 1 && line.front() != '\t')
            interface = fields[1].substr(0, fields[1].find(':'));
        else if (!fields.empty() && ReadWhole(fields[0], groupNet, 16))
            memberships.push_back({ interface, ntohl(groupNet) });
    }
    return memberships;
}

std::string ReadDefaultInterface(std::string_view text)
{
    constexpr size_t NAME = 0, DESTINATION = 1, METRIC = 6, MASK = 7;
    std::string name;
    uint32_t lowest = UINT32_MAX;
    while (!text.empty()) {
        const Fields fields = CutFields(TakeLine(text));
        uint32_t destination = 1, mask = 1, metric = 0;
        if (fields.size() > MASK && ReadWhole(fields[DESTINATION], destination, 16)
            && ReadWhole(fields[MASK], mask, 16) && ReadWhole(fields[METRIC], metric) && destination == 0
            && mask == 0 && (name.empty() || metric < lowest)) {
            name = fields[NAME];
            lowest = metric;
        }
    }
    return name;
}

std::optional<uint64_t> ReadCounter(std::string_view text, std::string_view group, std::string_view name)
{
    Fields heads;
    while (!text.empty()) {
        const Fields fields = CutFields(TakeLine(text));
        if (fields.empty() || fields[0].substr(0, fields[0].find(':')) != group)
            continue;
        for (size_t i = 0; i < std::min(heads.size(), fields.size()); ++i) {
            uint64_t count = 0;
            if (heads[i] == name && ReadWhole(fields[i], count))
                return count;
        }
        heads = fields;
    }
    return std::nullopt;
}

std::optional<PortRange> ReadPortRange(std::string_view text)
{
    const Fields fields = CutFields(text);
    PortRange range;
    if (fields.size() != 2 || !ReadWhole(fields[0], range.first) || !ReadWhole(fields[1], range.last))
        return std::nullopt;
    return range;
}

std::vector<PortRange> ReadReservedPorts(std::string_view text)
{
    std::vector<PortRange> ranges;
    text = TakeLine(text);
    while (!text.empty()) {
        const std::string_view part = text.substr(0, text.find(','));
        text.remove_prefix(std::min(part.size() + 1, text.size()));
        PortRange range;
        if (ReadRange(part, range))
            ranges.push_back(range);
    }
    return ranges;
}

std::optional<uint64_t> ReadCount(std::string_view text)
{
    const Fields fields = CutFields(text);
    uint64_t count = 0;
    return fields.size() == 1 && ReadWhole(fields[0], count) ? std::optional(count) : std::nullopt;
}

std::optional<UserFacts> ReadUser(std::string_view text)
{
    UserFacts user;
    bool isKnown = false;
    while (!text.empty()) {
        const Fields fields = CutFields(TakeLine(text));
        uint32_t group = 0;
        if (fields.empty())
            continue;
        if (fields[0] == "Uid:")
            isKnown = ReadFileId(fields, user.user);
        else if (fields[0] == "Gid:" && ReadFileId(fields, group))
            user.groups.push_back(group); // stands before the others
        else if (fields[0] == "Groups:")
            ReadGroups(fields, user);
        else if (fields[0] == "CapEff:" && fields.size() > 1)
            ReadRights(fields[1], user);
    }
    return isKnown ? std::optional(user) : std::nullopt;
}

char ReadState(std::string_view text)
{
    const size_t bracket = text.rfind(')');
    const Fields fields = CutFields(bracket == std::string_view::npos ? "" : text.substr(bracket + 1));
    return fields.empty() ? '\0' : fields[0].front();
}

std::optional<uint64_t> ReadFileLimit(std::string_view text)
{
    constexpr std::string_view NAME = "Max open files";
    while (!text.empty()) {
        const std::string_view line = TakeLine(text);
        if (!line.starts_with(NAME))
            continue;
        const Fields fields = CutFields(line.substr(NAME.size()));
        if (fields.empty())
            break;
        return fields[0] == "unlimited" ? std::optional<uint64_t>(UINT64_MAX) : ReadCount(fields[0]);
    }
    return std::nullopt;
}

} // namespace arqctl
