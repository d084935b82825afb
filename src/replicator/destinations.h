#pragma once

#include <functional>
#include <string>

// The destination list of the command line: IPv4 addresses and host names, separated by "," and nothing else.
// One that the resolver does not know is skipped in silence, one of the wrong kind with a message.
//
// Threads: none of its own. Both may block as long as the resolver does.

// Calls add(text) for each destination that is a unicast address.
void ForEachUnicast(const char* list, const std::function<void(const char* text)>& add);

// The first destination that is a multicast address, empty (with a message) when there is none.
std::string FirstMulticast(const char* list);
