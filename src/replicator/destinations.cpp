#include "replicator/destinations.h"

#include <netinet/in.h>

#include <cstdio>
#include <cstring>

#include "input/address.h"

namespace {

// Cuts the next destination off `*rest` that the resolver knows; null when there is none left.
const char* NextResolved(char** rest, in_addr_t* addressNet)
{
    while (const char* text = strtok_r(*rest, ",", rest)) {
        *addressNet = resolveHost(text);
        if (*addressNet != 0)
            return text;
    }
    return nullptr;
}

} // namespace

void ForEachUnicast(const char* list, const std::function<void(const char* text)>& add)
{
    std::string texts(list); // strtok_r cuts its text
    char* rest = texts.data();
    in_addr_t addressNet = 0;
    while (const char* text = NextResolved(&rest, &addressNet)) {
        if (IsMulticast(addressNet))
            printf("Error: Skipping %s, not an unicast address\n", text);
        else
            add(text);
    }
}

std::string FirstMulticast(const char* list)
{
    std::string texts(list);
    char* rest = texts.data();
    in_addr_t addressNet = 0;
    while (const char* text = NextResolved(&rest, &addressNet)) {
        if (IsMulticast(addressNet))
            return text;
        printf("Error: Skipping %s, not a multicast address\n", text);
    }
    puts("Error: No multicast address");
    return {};
}
