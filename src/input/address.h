#pragma once

#include <netinet/in.h>

#include <cstdint>

// IPv4 addresses as texts. All results are in network byte order; 0 always counts as "no address".
// Threads: free functions without state, safe from any thread.

// Reads a dotted quad into *address. Returns false unless the text has at most 15 characters, inet_aton
// accepts it and it has four fields, the last of which is all that follows the third dot. Each field is read
// as a decimal number of which the low 8 bits count. 0.0.0.0 is read like any other.
bool ReadDottedQuad(const char* text, in_addr_t* address);

// The address of a dotted quad, or 0.
in_addr_t parseDottedQuad(const char* text);

// The address of a dotted quad or else of a host name, the first one that the system resolver gives;
// 0 when there is none. May block as long as the resolver does. A null text is an empty one.
in_addr_t resolveHost(const char* text);

// Fills a whole socket address with resolveHost's result and port 0. True when the address is not 0.
bool resolveToSockaddr(const char* text, sockaddr_in* address);

// True for 224.0.0.0/4.
bool IsMulticast(in_addr_t address);
