#pragma once

#include <functional>

// A text list of destinations, separated by "," and nothing else (an entry keeps its blanks): the value of
// -a. An entry that the resolver does not know is skipped without a message.

struct Destination {
    static constexpr size_t BYTES = 1025; // the longest host name of the resolver, with the terminating zero

    char text[BYTES] = ""; // empty for none
};

// Calls add(text) for each unicast destination, in order; a multicast address is reported and skipped.
void ForEachUnicast(const char* list, const std::function<void(const char* text)>& add);

// The first multicast address; unicast ones before it are reported, as is a
// list without any, which gives none.
Destination FirstMulticast(const char* list);
