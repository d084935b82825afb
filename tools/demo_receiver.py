"""A receiver as the proxy expects it, behind a path that loses datagrams in both directions.

It joins by pinging and stays as long as it pings. Media come back to the port that it pinged from. A number
missing from the sequence is asked for at once and then every RETRY_SECONDS, until it comes or the jitter
buffer can wait no longer; then it is lost. A receiver that never asks only counts.
"""

import dataclasses
import random
import socket
import struct

RETRIES = 16
RETRY_MS = 120  # above the 100 ms for which the proxy will not send the same packet again
RETRY_SECONDS = RETRY_MS / 1000
BUFFER_SECONDS = (RETRIES + 1) * RETRY_SECONDS  # as long as the proxy keeps answering with these window words
MAX_NUMBERS = 64  # in one request; the proxy's byte budget for these window words pays for twice as many
PING_SECONDS = 1.0  # the proxy forgets a receiver that is silent for 5 to 10 s

PING = bytes.fromhex("0000ade2") + b"demo"
LEAVE = bytes.fromhex("deadbeef") + bytes(4)  # stream ID 0: the one known by its address
LEAVE_COPIES = 5  # the path may lose some of them

RTP_HEADER_BYTES = 12
SOCKET_BUFFER_BYTES = 1 << 20


@dataclasses.dataclass
class Figures:
    """What a receiver has counted: pings sent, different packets received, and what became of the gaps."""

    pings: int = 0
    got: int = 0
    missing: int = 0
    recovered: int = 0
    lost: int = 0


@dataclasses.dataclass
class Gap:
    """A missing packet: when to ask for it next, and when it is lost."""

    ask_at: float
    lost_at: float


class LossyPath:
    """One direction of a path: lets a datagram through or not, the same ones in every run."""

    def __init__(self, loss, seed):
        self._loss = loss
        self._random = random.Random(seed)

    def passes(self):
        return self._random.random() >= self._loss


def distance(sequence, expected):
    """How far a 16-bit number is ahead of the expected one; negative when it is behind."""
    return ((sequence - expected + 0x8000) & 0xFFFF) - 0x8000


def request(numbers):
    """An ArqRequest, all in host byte order: checksum and the listed words add up to 0 modulo 65536."""
    checksum = -sum(numbers) & 0xFFFF
    return struct.pack(f"=5H{len(numbers)}H", len(numbers), checksum, RETRIES, RETRY_MS, 0, *numbers)


class Receiver:
    """Driven from outside: on_readable() when its socket has something, tick() every few milliseconds."""

    def __init__(self, address, port, request_port, *, asks, loss, seed):
        self.figures = Figures()
        self.gaps = {}  # by sequence number, oldest first
        self._asks = asks
        self._ping_address = ("127.0.0.1", port)
        self._request_address = ("127.0.0.1", request_port)
        self._inbound = LossyPath(loss, f"in {seed}")
        self._outbound = LossyPath(loss, f"out {seed}")
        self._expected = None  # the next number, once the first packet is there
        self._next_ping = 0.0
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        # The proxy listens for pings on the same port number, on all addresses.
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, SOCKET_BUFFER_BYTES)
        self.socket.setblocking(False)
        self.socket.bind((address, port))

    def on_readable(self, now):
        while True:
            try:
                datagram = self.socket.recv(2048)
            except BlockingIOError:
                return
            if len(datagram) >= RTP_HEADER_BYTES and self._inbound.passes():
                self._take(int.from_bytes(datagram[2:4], "big"), now)

    def tick(self, now):
        if now >= self._next_ping:
            self._next_ping = now + PING_SECONDS
            self.figures.pings += 1
            self._send(PING, self._ping_address)
        for number in [number for number, gap in self.gaps.items() if now >= gap.lost_at]:
            self._give_up(number)
        if self._asks:
            due = [number for number, gap in self.gaps.items() if now >= gap.ask_at]
            for start in range(0, len(due), MAX_NUMBERS):
                self._ask(due[start : start + MAX_NUMBERS], now)

    def give_up_rest(self):
        """The stream is over: nothing more will come."""
        for number in list(self.gaps):
            self._give_up(number)

    def waits(self):
        """Whether something missing may still come."""
        return self._asks and bool(self.gaps)

    def leave(self):
        """Ends the stream at the proxy; a tick after it would join again."""
        for _ in range(LEAVE_COPIES):
            self._send(LEAVE, self._ping_address)

    def _take(self, number, now):
        if self._expected is None:
            self._expected = number
        ahead = distance(number, self._expected)
        if ahead >= 0:
            for step in range(ahead):
                self.gaps[(self._expected + step) & 0xFFFF] = Gap(ask_at=now, lost_at=now + BUFFER_SECONDS)
            self.figures.missing += ahead
            self.figures.got += 1
            self._expected = (number + 1) & 0xFFFF
        elif self.gaps.pop(number, None):  # else a second copy, or one that comes too late
            self.figures.got += 1
            self.figures.recovered += 1

    def _ask(self, numbers, now):
        for number in numbers:
            self.gaps[number].ask_at = now + RETRY_SECONDS
        self._send(request(numbers), self._request_address)

    def _give_up(self, number):
        del self.gaps[number]
        self.figures.lost += 1

    def _send(self, datagram, address):
        if self._outbound.passes():
            self.socket.sendto(datagram, address)
