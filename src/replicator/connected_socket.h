#pragma once

#include <netinet/in.h>

#include "base/unique_fd.h"

// A UDP socket that sends to one address only may be connected to it: the kernel then need not look for the
// way with each datagram. It also keeps the source address of that moment; see RoutedSource.
// Never for a socket that others send from or that somebody reads: it would get what comes from that address
// only, or take it away from another one on the same port.

// True when the socket is connected afterwards. False, without a way to the address
// for instance, leaves it as it is.
bool ConnectSocket(int fd, const sockaddr_in& address);

// The address that datagrams of this socket come from, and the one that routing would choose for it now. In
// network order; 0 when there is none.
in_addr_t SourceOf(int fd);
in_addr_t RoutedSource(const sockaddr_in& address);

// A socket on the same port as fd (both may share it) that is connected to the
// address; invalid when there is none.
UniqueFd ConnectedTwin(int fd, const sockaddr_in& address);
