#pragma once

#include <cerrno>

// Whether a send on a connected socket may have failed with what an ICMP message (RFC 792) says
// of an earlier datagram. The kernel tells that once, in place of a send; routing's own
// refusals look the same, and come again.
constexpr bool IsOfEarlierDatagram(int error)
{
    return error == ECONNREFUSED || error == EHOSTUNREACH || error == ENETUNREACH || error == ENOPROTOOPT
        || error == EHOSTDOWN || error == ENONET || error == EPROTO || error == EOPNOTSUPP;
}
