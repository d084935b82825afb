"""The receiver's side of the protocol: what receivers send, and two models of them.

PingingReceiver  says only what the test tells it to say and collects what comes
ModelReceiver    pings, notices gaps and asks again by itself; run by drive(), so many fit into one thread
"""

import collections
import itertools
import re
import select
import struct
import time

from . import control, rtp
from .receiver import Receiver, pump
from .waiting import DEFAULT_TIMEOUT, scaled

STOP_MAGIC = bytes.fromhex("deadbeef")
ID_MAGIC = bytes.fromhex("babeface")
STOP_MESSAGE = STOP_MAGIC + ID_MAGIC  # what the proxy sends to a receiver that is deleted
RETRANSMIT_PAYLOAD_TYPE = 122
LONGEST_SHORT_DATAGRAM = 9  # one byte more is a request
HOLD_OFF_SECONDS = 0.1
LAST_SEQ = 50000
STAMP = r"[A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d: "


class Window(collections.namedtuple("Window", "retries interval_ms extra_ms")):
    """The three timing words of a request."""

    def age_seconds(self):
        """How old a packet may be and still be sent again (for windows that do not wrap)."""
        return ((self.retries + 1) * self.interval_ms + self.extra_ms) / 1000

    def budget_bytes(self, bitrate=50_000_000):
        """How much one request may bring, in the proxy's 32-bit arithmetic."""
        return ((self.interval_ms * self.retries + self.extra_ms) * bitrate & 0xFFFFFFFF) // 8000


DEFAULT_WINDOW = Window(2, 200, 0)
# Nothing expires while a slow machine runs the test.
WIDE_WINDOW = Window(2, 20000, 0)


def stamped(text):
    """A log line of the replicator: the time of day, then exactly this text."""
    return re.compile(STAMP + re.escape(text))


def raw_port(port):
    """A port as the log shows it: the two bytes as they came, read by a little-endian host."""
    return struct.unpack("<H", struct.pack("!H", port))[0]


def tag(stream_id, magic=ID_MAGIC, swapped=False):
    """The 8-byte prefix; `swapped` turns the magic round, never the ID."""
    return (magic[::-1] if swapped else magic) + struct.pack("<I", stream_id)


def echo_ping(data=b""):
    """A ping for the request port."""
    return bytes.fromhex("0000ade2") + data


def list_sum(data):
    """The sum over the list of a request: little-endian words, an odd last byte on its own."""
    words = struct.unpack_from(f"<{len(data) // 2}H", data)
    return (sum(words) + (data[-1] if len(data) % 2 else 0)) & 0xFFFF


def request(seqs, window=WIDE_WINDOW, count=None, checksum=None, trailer=b""):
    """A request for these numbers. `count` and `checksum` replace the right ones; `trailer` follows the list."""
    listed = struct.pack(f"<{len(seqs)}H", *(seq & 0xFFFF for seq in seqs)) + trailer
    right = -list_sum(listed) & 0xFFFF
    header = struct.pack(
        "<5H", len(seqs) if count is None else count, right if checksum is None else checksum, *window
    )
    return header + listed


def retransmission_of(first_sending):
    """The datagram with which the proxy answers a request for what it had sent as `first_sending`."""
    return first_sending[:1] + bytes([first_sending[1] & 0x80 | RETRANSMIT_PAYLOAD_TYPE]) + first_sending[2:]


def wait_bound(proxy, *ports):
    """Waits until the proxy listens on these ports: the listen thread binds them at its own pace."""
    for port in ports:
        proxy.wait_stderr(f"SocketListener: sock bound to port {port}")
    return proxy


def media_started(receiver):
    """The line with which the proxy says that it is about to send to where this receiver pings from."""
    return stamped(
        f"Media started on port {raw_port(receiver.port)} for {receiver.address[0]} "
        f"ID:0x{receiver.stream_id or 0:08x}"
    )


def start_media(proxy, receiver, settle=None):
    """Pings and waits until the stream sends to where the ping came from; returns the receiver.

    `settle` is how to wait for the effect where nobody answers requests.
    """
    line = media_started(receiver)
    before = len(proxy.stderr.find(line))
    receiver.ping()
    # The line comes before the stream stands in the table. Pings and echoes are handled by one thread in turn,
    # so an echo that is asked for after the line comes when the ping has had its whole effect.
    proxy.wait_stderr(line, count=before + 1)
    (settle or receiver.settle)()
    return receiver


def settled_by_list(instance):
    """Waits until a ping that the log shows has had its effect: it and the report of streams take one lock."""
    control.request(instance, "AllStats")


def feed(sender, receivers, datagrams, last=rtp.packet(LAST_SEQ, b"last")):
    """Sends media, and waits until all of it has arrived and may be asked for.

    The proxy sends a packet first and stores it then, so that a quick request for it could come too early. One
    more packet follows: when it is here, all before it are stored.
    """
    pump(sender, receivers, [*datagrams, last])


class PingingReceiver(Receiver):
    """Sends from its own port, with its tag when it has a stream ID, and collects what arrives there."""

    _serials = itertools.count(1)

    def __init__(self, address, port, net, stream_id=None, swapped=False, proxy_address="127.0.0.1", **keywords):
        super().__init__(address, port, **keywords)
        self.ping_address = (proxy_address, net.destination)
        self.request_address = (proxy_address, net.request)
        self.stream_id = stream_id
        self.swapped = swapped

    @property
    def port(self):
        return self.address[1]

    def tagged(self, data):
        return data if self.stream_id is None else tag(self.stream_id, swapped=self.swapped) + data

    def ping(self, data=b""):
        self.send(self.tagged(data), self.ping_address)

    def stop(self, data=b""):
        if self.stream_id is None:
            stop = STOP_MAGIC[::-1] if self.swapped else STOP_MAGIC
        else:
            stop = tag(self.stream_id, STOP_MAGIC, self.swapped)
        self.send(stop + data, self.ping_address)

    def ask(self, seqs, *args, **keywords):
        self.ask_raw(request(seqs, *args, **keywords))

    def ask_raw(self, data):
        self.send(self.tagged(data), self.request_address)

    def _wait_echo(self):
        mark = echo_ping(struct.pack("<I", next(self._serials)))
        self.ask_raw(mark)
        self.wait_for(lambda datagram: datagram.data == mark)
        return mark

    def settle(self):
        """Waits until the proxy has handled all that it took from its ports before; the echo leaves no trace here."""
        self.forget(self._wait_echo())

    def fence(self):
        """Everything that arrived before the echo of a ping sent now: the answers to all earlier requests."""
        mark = self._wait_echo()
        payloads = self.payloads
        return payloads[: payloads.index(mark)]

    def answers(self):
        """The datagrams with retransmitted media so far, up to now's fence, echoes left out."""
        return [data for data in self.fence() if len(data) > LONGEST_SHORT_DATAGRAM and is_retransmission(data)]


def is_retransmission(data):
    return rtp.payload_type(data) == RETRANSMIT_PAYLOAD_TYPE


def unwrapped(seq, near):
    """The number that is `seq` modulo 65536 and closest to `near`."""
    return near + ((seq - near + 0x8000) & 0xFFFF) - 0x8000


class ModelReceiver:
    """A receiver as they are in the field: it keeps its stream alive and asks for what it misses.

    Packets are known by their index: the sequence number, unwrapped, less `first_seq`. Run it with drive().
    """

    ASK_INTERVAL_SECONDS = HOLD_OFF_SECONDS * 1.2
    REORDER_PATIENCE_SECONDS = 0.02  # a late packet is not yet a lost one
    SLACK_SECONDS = 0.5
    MOST_PER_REQUEST = 80  # stays within the byte budget of its window

    def __init__(self, sock, ping_address, request_address, first_seq, total, check, *, stream_id=None,
                 window=DEFAULT_WINDOW, asks=True, ping_interval=0.5):  # fmt: skip
        self.sock = sock
        self.sock.setblocking(False)
        self._ping_address = ping_address
        self._request_address = request_address
        self._tag = b"" if stream_id is None else tag(stream_id)
        self._first_seq = first_seq
        self._check = check
        self._window = window
        self._asks = asks
        self._ping_interval = ping_interval
        self._next_ping = 0.0
        self._have = bytearray(total)
        self._asked = bytearray(total)
        self._newest = -1
        self._missing = {}  # index: [time of the next request, time to give up, time when the gap was seen]
        self.first_time = 0
        self.recovered = 0
        self.recovery_seconds = []  # from the gap to the packet
        self.given_up = set()
        self.faults = []  # what no receiver should ever see

    def sockets(self):
        return {self.sock: self._receive}

    @property
    def is_settled(self):
        """No hope is left: whatever is not here now will not come."""
        return not self._missing

    def times_asked(self, index):
        return self._asked[index]

    def absent(self):
        return [index for index, here in enumerate(self._have) if not here]

    def end_of_stream(self, now):
        """Tells the receiver that the whole stream was sent: what is missing behind the newest shows now."""
        self._notice_gap(len(self._have), now)

    def _receive(self, now):
        try:
            while True:
                self._accept(self.sock.recv(2048), now)
        except BlockingIOError:
            return

    def _accept(self, data, now):
        index = unwrapped(rtp.seq(data) - self._first_seq, self._newest)
        if not 0 <= index < len(self._have):
            self.faults.append(f"number {rtp.seq(data)} was never sent")
            return
        again = is_retransmission(data)
        if again and not self._asked[index]:
            self.faults.append(f"packet {index} marked as sent again, but nobody here had asked for it")
        if not self._check(index, data):
            self.faults.append(f"packet {index} has changed")
        if index > self._newest:
            self._notice_gap(index, now)
        if self._have[index]:
            return
        self._have[index] = 1
        self.given_up.discard(index)  # on a busy machine it may come after all
        missed = self._missing.pop(index, None)
        if again:
            self.recovered += 1
            if missed:
                self.recovery_seconds.append(now - missed[2])
        else:
            self.first_time += 1

    def _notice_gap(self, index, now):
        if self._asks:
            give_up = now + self._window.age_seconds() + self.SLACK_SECONDS
            for gone in range(self._newest + 1, index):
                self._missing[gone] = [now + self.REORDER_PATIENCE_SECONDS, give_up, now]
        self._newest = index

    def tick(self, now):
        if now >= self._next_ping:
            self._next_ping = now + self._ping_interval
            self.sock.sendto(self._tag, self._ping_address)
        if self._missing:
            self._ask(now)

    def _ask(self, now):
        due = []
        for index, times in list(self._missing.items()):
            if now >= times[1]:
                del self._missing[index]
                self.given_up.add(index)
            elif now >= times[0] and len(due) < self.MOST_PER_REQUEST:
                times[0] = now + self.ASK_INTERVAL_SECONDS
                self._asked[index] = min(self._asked[index] + 1, 255)
                due.append(self._first_seq + index)
        if due:
            self.sock.sendto(self._tag + request(due, self._window), self._request_address)


def drive(parts, until, what, timeout=DEFAULT_TIMEOUT, tick_seconds=0.002):
    """Runs parts, each with sockets() -> {socket: on_readable(now)} and tick(now), until until() is true."""
    with select.epoll() as poll:
        handlers = {}
        for part in parts:
            for sock, handler in part.sockets().items():
                poll.register(sock.fileno(), select.EPOLLIN)
                handlers[sock.fileno()] = handler
        deadline = time.monotonic() + scaled(timeout)
        while not until():
            ready = poll.poll(tick_seconds)
            now = time.monotonic()
            assert now < deadline, f"gave up waiting for {what}"
            for descriptor, _ in ready:
                handlers[descriptor](now)
            for part in parts:
                part.tick(now)
