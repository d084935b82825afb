"""What the kernel of a namespace has counted of UDP."""

import collections

UdpCounts = collections.namedtuple("UdpCounts", "sends reads")


def udp(namespace):
    """How often something was handed to the kernel, and how many datagrams were read, since the namespace exists.

    A train of datagrams is handed over once and read datagram by datagram, so more reads than sends tell of trains.
    """
    with namespace.call(lambda: open("/proc/thread-self/net/snmp", encoding="ascii")) as table:
        names, values = (line.split() for line in table if line.startswith("Udp: "))
    counts = dict(zip(names[1:], map(int, values[1:])))
    return UdpCounts(counts["OutDatagrams"], counts["InDatagrams"])
