"""What a test of a send that fails needs: a stream at a rate, and a look at what each receiver has of it."""

import os
import re
import struct

from . import rtp, traffic
from .waiting import scaled, wait_until

PACKETS_PER_SECOND = 1000
MOST_AT_ONCE = 50
PAYLOAD_BYTES = 1316
FIRST_SEQ = 65000  # the numbers wrap soon
FIRST_BUILT_SEQ = 1  # in UDP input mode


def complaint(error):
    """The line that the proxy prints for a send that fails so."""
    return f"SendData failed: {os.strerror(error)}"


def payload(index):
    return struct.pack("!I", index) + bytes(PAYLOAD_BYTES - 4)


def media(index):
    return rtp.packet(FIRST_SEQ + index, payload(index))


def index_of(data):
    """Which packet of the stream a datagram is; None for anything else."""
    if len(data) != rtp.HEADER_BYTES + PAYLOAD_BYTES:
        return None
    return struct.unpack_from("!I", data, rtp.HEADER_BYTES)[0]


class Stream(traffic.Steady):
    """The stream, from the making of this object until its close; slower in slow builds."""

    def __init__(self, sender, make=media, per_second=PACKETS_PER_SECOND):
        super().__init__(sender, make, per_second / scaled(1), MOST_AT_ONCE)


def first_sendings(receiver):
    """The indices of the media that came unasked, in order of arrival, and the times."""
    found = []
    for datagram in receiver.datagrams:
        index = index_of(datagram.data)
        if index is not None and rtp.payload_type(datagram.data) == rtp.MEDIA_PAYLOAD_TYPE:
            found.append((index, datagram.time))
    return found


def wait_more(receiver, count=PACKETS_PER_SECOND // 4):
    """Waits until so many more media have come."""
    before = receiver.count()
    receiver.wait_count(before + count)


def wait_last(stream, receiver):
    """Ends the stream and waits until its last packet has come."""
    stream.close()
    wait_until(
        lambda: any(index == stream.sent - 1 for index, _ in first_sendings(receiver)[-20:]), "the last packet"
    )


def check_whole(receiver, total):
    """Each packet once, in order; returns the longest time between two."""
    found = first_sendings(receiver)
    numbers = [index for index, _ in found]
    assert numbers == list(range(total)), f"missing: {sorted(set(range(total)) - set(numbers))[:50]}"
    times = [at for _, at in found]
    return max(after - before for before, after in zip(times, times[1:]))


def lines_of_sends(proxy):
    """All that the log says about sends, each text once."""
    return set(re.findall(r"^Send.*$", proxy.stderr.text, re.MULTILINE))
