// Control requests, one a line, to their replies: the commands as they come from the control socket, with the
// replicator behind them. A reply repeats the request's own words or tells figures and addresses, nothing else.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "fuzz/world/require.h"
#include "fuzz/world/world.h"

namespace {

constexpr size_t REQUEST_BYTES = 1024;

bool HasOnly(std::string_view text, std::string_view characters)
{
    return text.find_first_not_of(characters) == std::string_view::npos;
}

bool Follows(std::string_view reply, std::string_view start, std::string_view request)
{
    return reply.substr(0, start.size()) == start
        && request.find(reply.substr(start.size())) != std::string_view::npos;
}

bool IsExpected(std::string_view reply, std::string_view request)
{
    constexpr std::string_view FIXED[]
        = { "", "OK: Stat Reset", "OK: Rx Stat Reset", "OK: Tx Stat Reset", "command not implemented" };
    if (std::find(std::begin(FIXED), std::end(FIXED), reply) != std::end(FIXED))
        return true;
    if (Follows(reply, "OK: Adding: ", request) || Follows(reply, "OK: Deleting: ", request))
        return true;
    return HasOnly(reply, "0123456789.,-=_\nRECVPAKTSBILOSNDACLU");
}

// The request lies in memory of its own size, so that whoever reads behind it is seen.
void Carry(World& world, std::string_view line)
{
    line = line.substr(0, std::min(line.find('\0'), REQUEST_BYTES));
    const auto request = std::make_unique<char[]>(line.size() + 1);
    std::copy(line.begin(), line.end(), request.get());
    const std::string_view reply = world.Command(request.get());
    Require(IsExpected(reply, line), "a reply says what it is meant to say");
}

// The list with less room than a reply has: whole addresses, as many as fit.
void List(World& world, size_t room)
{
    char all[2048] = "";
    (void)world.Replicator().ListStreams(all, sizeof(all));
    const std::string whole = "," + std::string(all) + ",";
    const auto some = std::make_unique<char[]>(room); // zeroed
    (void)world.Replicator().ListStreams(some.get(), room);
    Require(room == 0 || some[room - 1] == '\0', "a list ends");
    std::string_view rest(some.get(), room == 0 ? 0 : std::strlen(some.get()));
    while (!rest.empty()) {
        const std::string address(rest.substr(0, rest.find(',')));
        rest.remove_prefix(std::min(address.size() + 1, rest.size()));
        Require(whole.find("," + address + ",") != std::string::npos, "a list is cut between addresses");
    }
}

// "@" and two characters: something else happens between the commands.
void Happen(World& world, std::string_view line)
{
    const auto number = static_cast<uint8_t>(line[2]);
    if (line[1] == 'p')
        world.SendPing(
            std::string("\xBA\xBE\xFA\xCE", 4) + line[2] + std::string("\0\0\1", 3), number, 0x3412);
    else if (line[1] == 'l')
        List(world, number);
    else if (line[1] == 't')
        world.Advance(100U * number);
    else
        world.SendMedia("\x80\x21\x00\x01media of some length");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    constexpr int MOST_LINES = 80;
    InputReader input(data, size);
    World& world = World::Begin(input.Byte());
    std::string_view rest = input.Rest();
    for (int i = 0; i < MOST_LINES && !rest.empty(); ++i) {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        rest.remove_prefix(std::min(line.size() + 1, rest.size()));
        if (line.size() >= 3 && line[0] == '@')
            Happen(world, line);
        else
            Carry(world, line);
    }
    world.End();
    return 0;
}
