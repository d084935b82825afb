#include "replicator/destinations.h"

#include <netinet/in.h>

#include <algorithm>
#include <cstdio>
#include <string_view>

#include "input/address.h"

namespace {

// Cuts the next entry off the list; an empty one when there is none left. Empty entries are skipped.
std::string_view NextEntry(std::string_view& list)
{
    list.remove_prefix(std::min(list.find_first_not_of(','), list.size()));
    const std::string_view entry = list.substr(0, list.find(','));
    list.remove_prefix(entry.size());
    return entry;
}

// The next destination of the list that the resolver knows; false when there is none left.
bool NextResolved(std::string_view& list, Destination& destination, in_addr_t& addressNet)
{
    for (std::string_view entry = NextEntry(list); !entry.empty(); entry = NextEntry(list)) {
        if (entry.size() >= Destination::BYTES)
            continue; // no resolver knows it
        destination.text[entry.copy(destination.text, entry.size())] = '\0';
        addressNet = resolveHost(destination.text);
        if (addressNet != 0)
            return true;
    }
    return false;
}

} // namespace

void ForEachUnicast(const char* list, const std::function<void(const char* text)>& add)
{
    std::string_view rest(list);
    Destination destination;
    in_addr_t addressNet = 0;
    while (NextResolved(rest, destination, addressNet)) {
        if (IsMulticast(addressNet))
            printf("Error: Skipping %s, not an unicast address\n", destination.text);
        else
            add(destination.text);
    }
}

Destination FirstMulticast(const char* list)
{
    std::string_view rest(list);
    Destination destination;
    in_addr_t addressNet = 0;
    while (NextResolved(rest, destination, addressNet)) {
        if (IsMulticast(addressNet))
            return destination;
        printf("Error: Skipping %s, not a multicast address\n", destination.text);
    }
    puts("Error: No multicast address");
    return {};
}
