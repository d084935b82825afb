"""Traffic for proxies whose output does not follow their input at once."""

import re
import socket
import struct
import threading
import time

from . import rtp
from .waiting import DEFAULT_TIMEOUT, wait_until

LOOKS = 4  # at the system's table, as long as it is longer than a page
PAGE_BYTES = 4096
INODE = 9  # its column
SEND_AT_ONCE = 40  # datagrams that the smallest socket buffer holds


def _sockets(ports, address=None):
    """The rows of the system's table of the sockets bound to `ports`, or those of one address.

    One look at a long table may miss a socket that is there or show it twice: it is written a page at a time, and what
    moves up or down when other sockets end or begin meanwhile is in no page or in two.
    """
    place = f"{struct.unpack('=I', socket.inet_aton(address))[0]:08X}" if address else r"\w+"
    pattern = re.compile(rf"\s*\d+: {place}:(\w+) ")
    found = {}
    for _ in range(LOOKS):
        with open("/proc/net/udp", encoding="ascii") as table:
            text = table.read()
        matches = map(pattern.match, text.splitlines())
        rows = [match.string.split() for match in matches if match and int(match.group(1), 16) in ports]
        found.update((row[INODE], row) for row in rows)
        if len(text) <= PAGE_BYTES:
            break
    return found.values()


def is_bound(port):
    """Whether a UDP socket is bound to `port`, without disturbing anyone by trying to bind."""
    return bool(_sockets([port]))


def unread_bytes(port, address=None):
    """What the sockets bound to `port`, or that of one address, have not read yet."""
    return sum(int(row[4].partition(":")[2], 16) for row in _sockets([port], address))


def kernel_drops(*ports):
    """Datagrams that the system has dropped because the sockets bound to `ports` were full."""
    return sum(int(row[-1]) for row in _sockets(ports))


def wait_until_read(port):
    """Waits until the proxy has taken everything from its input socket."""
    wait_until(lambda: unread_bytes(port) == 0, f"the proxy to read port {port}")


def send_all(sender, port, datagrams):
    """Sends at the proxy's pace of reading, however slowly it sends on."""
    for start in range(0, len(datagrams), SEND_AT_ONCE):
        for data in datagrams[start : start + SEND_AT_ONCE]:
            sender.send(data)
        wait_until_read(port)


class Steady(threading.Thread):
    """Sends make(0), make(1), ... at a constant rate, by a schedule that makes up for late turns.

    Of what is late no more than `most_at_once` are made up for, so that no buffer on the way overflows.
    """

    def __init__(self, sender, make, per_second, most_at_once=1_000_000):
        super().__init__(daemon=True)
        self._sender = sender
        self._make = make
        self._per_second = per_second
        self._most_at_once = most_at_once
        self._running = True
        self.sent = 0
        self.start()

    def run(self):
        begin = time.monotonic()
        while self._running:
            due = int((time.monotonic() - begin) * self._per_second)
            too_late = max(0, due - self.sent - self._most_at_once)
            begin += too_late / self._per_second
            due -= too_late
            while self.sent < due:
                self._sender.send(self._make(self.sent))
                self.sent += 1
            time.sleep(0.001)

    def close(self):
        self._running = False
        self.join(DEFAULT_TIMEOUT)


def release_groups(datagrams, gap_seconds):
    """Sizes of the groups in which datagrams were sent, told apart by gaps of their timestamps."""
    sizes = [1]
    for before, after in zip(datagrams, datagrams[1:]):
        if rtp.ticks_since(rtp.timestamp(after), rtp.timestamp(before)) > gap_seconds * rtp.TICKS_PER_SECOND:
            sizes.append(0)
        sizes[-1] += 1
    return sizes


class Paced:
    """Sends make(0) to make(total - 1) at a constant rate; a part of model_receiver.drive(): every turn what is due.

    What is late beyond SEND_AT_ONCE stays late: a burst of all that a busy machine held up would overflow the input.
    """

    def __init__(self, sender, make, per_second, total):
        self._sender = sender
        self._make = make
        self._per_second = per_second
        self._total = total
        self._began = time.monotonic()
        self.sent = 0

    def sockets(self):
        return {}

    def tick(self, now):
        due = int((now - self._began) * self._per_second)
        too_late = max(0, due - self.sent - SEND_AT_ONCE)
        self._began += too_late / self._per_second
        while self.sent < min(self._total, due - too_late):
            self._sender.send(self._make(self.sent))
            self.sent += 1
