"""One receiver floods a port on which the proxy listens while others keep their streams and recover.

TX_PROXY_FLOOD_RATE     datagrams a second and thread, fewer in slow builds; 0 for as many as a core can send
TX_PROXY_FLOOD_THREADS  1 to 4

What a run has measured is printed and stands in the test report.
"""

import os
import re
import struct
import time

import pytest

from txproxy import control, flooding, rtp
from txproxy.link import Link, started_media
from txproxy.model_receiver import (
    ModelReceiver,
    Window,
    drive,
    echo_ping,
    request,
    tag,
    wait_bound,
)
from txproxy.receiver import udp_socket
from txproxy.traffic import Paced, kernel_drops, send_all
from txproxy.waiting import scaled

pytestmark = pytest.mark.xdist_group("flood")  # one at a time: two floods share the kernel's queues, and leave no core

# A slow build takes longer for each, and gets less of a processor that its neighbours want for longer, too.
RATE = float(os.environ.get("TX_PROXY_FLOOD_RATE", "10000")) / scaled(1) ** 2
THREADS = int(os.environ.get("TX_PROXY_FLOOD_THREADS", "1"))
STRANGER = "127.0.0.66"
PROBER = "127.0.0.77"
STREAM_ID = 7
SEED = 5
LOSS = 0.1
PACKETS_PER_SECOND = 300
STREAM_SECONDS = 6
TOTAL = PACKETS_PER_SECOND * STREAM_SECONDS
FIRST_SEQ = 60000
RING = 4096
PAYLOAD = bytes(1300)
PROBE_SECONDS = 0.01
LISTED = 763  # what fits into a datagram that the proxy reads whole
LONG_WINDOW = Window(2, 5000, 0)  # a busy machine may need a few more turns
LEAST_ANSWERED = 0.35  # a busy machine does not let the listen thread run all the time
MEDIAN_RECOVERY_SECONDS = 0.5
MEMBERS = 40
PING_SECONDS = 1.0
SUSPENSION_SECONDS = 11.0
ADDED = re.compile(r".* Process Ping: Added \S+ stream ID:0x[0-9a-f]{8}")


def payload(index):
    return struct.pack("!I", index) + PAYLOAD


def media(index):
    return rtp.packet(FIRST_SEQ + index, payload(index))


def numbers(first, count):
    return [(FIRST_SEQ - RING + first + i) & 0xFFFF for i in range(count)]


# By name: what the stranger sends to the request port in turn. The ring is full when it begins.
FLOODS = {
    "lists_of_65535_in_1536_bytes": [request(numbers(0, LISTED), count=65535)],
    "lists_of_65535_in_10_bytes": [request([], count=65535)],
    "resends_to_the_byte_budget": [request(numbers(200 * i, LISTED), Window(2, 60000, 0)) for i in range(18)],
    "echoes": [echo_ping(b"abcd")],
}


class Prober:
    """A receiver that asks for an echo again and again and notes how long each takes."""

    def __init__(self, sock, request_address):
        self._sock = sock
        self._sock.setblocking(False)
        self._request_address = request_address
        self._next = 0.0
        self._asked = []
        self.seconds = []

    def sockets(self):
        return {self._sock: self._receive}

    def _receive(self, now):
        try:
            while True:
                data = self._sock.recv(2048)
                if data.startswith(echo_ping()):
                    self.seconds.append(now - self._asked[struct.unpack_from("<I", data, 4)[0]])
        except BlockingIOError:
            return

    def tick(self, now):
        if now >= self._next:
            self._next = now + PROBE_SECONDS
            self._sock.sendto(echo_ping(struct.pack("<I", len(self._asked))), self._request_address)
            self._asked.append(now)

    def share_answered(self):
        return len(self.seconds) / len(self._asked)


def milliseconds(seconds, share):
    ordered = sorted(seconds)
    return 1000 * ordered[min(len(ordered) - 1, int(share * len(ordered)))] if ordered else float("inf")


class Scene:
    """A proxy, a receiver behind a lossy line, one that asks for echoes, and a stranger with a stream."""

    def __init__(self, start_proxy, net, sender, closing):
        self.proxy = wait_bound(start_proxy("-a", f"{STRANGER},{PROBER}"), net.destination, net.request)
        self.prober = Prober(closing(udp_socket(PROBER, net.destination)), ("127.0.0.1", net.request))
        targets = [("127.0.0.1", net.destination), ("127.0.0.1", net.request)]
        options = ["--seed", SEED, "--loss", LOSS, "--source", "127.0.0.20"]
        self.line = closing(Link(targets, *options, address="127.0.0.30"))
        self.receiver = ModelReceiver(
            closing(udp_socket("127.0.0.40", 0, reuse=False)),
            *self.line.listen,
            FIRST_SEQ,
            TOTAL,
            lambda index, data: data[rtp.HEADER_BYTES :] == payload(index),
            stream_id=STREAM_ID,
            window=LONG_WINDOW,
        )
        self._sender = sender
        send_all(sender, net.input, [rtp.packet(seq, PAYLOAD) for seq in numbers(0, RING)])

    def run(self):
        """The whole stream, and the recovery of what it lost."""
        parts = [self.receiver, self.prober]
        drive(parts, lambda: started_media(self.proxy, self.line, STREAM_ID), "the media start")
        stream = Paced(self._sender, media, PACKETS_PER_SECOND, TOTAL)
        drive([*parts, stream], lambda: stream.sent == TOTAL, "the end of the stream", timeout=60)
        ending = time.monotonic() + 0.25
        drive(parts, lambda: time.monotonic() > ending, "the last first sendings")
        self.receiver.end_of_stream(time.monotonic())
        drive(parts, lambda: self.receiver.is_settled, "the last recoveries", timeout=30)

    def report(self, name, flood, record_property):
        receiver, prober = self.receiver, self.prober
        text = (
            f"{flood.per_second:.0f} datagrams/s, {100 * prober.share_answered():.0f} % of the others' requests "
            f"answered, half of them in {milliseconds(prober.seconds, 0.5):.1f} ms and 99 % in "
            f"{milliseconds(prober.seconds, 0.99):.1f} ms; {receiver.recovered} packets recovered, half in "
            f"{milliseconds(receiver.recovery_seconds, 0.5):.0f} ms and 99 % in "
            f"{milliseconds(receiver.recovery_seconds, 0.99):.0f} ms, {len(receiver.absent())} missing"
        )
        print(f"{name}: {text}")
        record_property(name, text)


@pytest.mark.release_only  # time is the subject
@pytest.mark.parametrize("kind", FLOODS)
def test_requests_at_full_rate_from_one_receiver_do_not_keep_another_from_recovering(
    kind, start_proxy, net, sender, closing, tmp_path, record_property
):
    program = flooding.build(tmp_path)
    scene = Scene(start_proxy, net, sender, closing)
    target = ("127.0.0.1", net.request)
    flood = closing(flooding.Flood(program, target, (STRANGER, 0), FLOODS[kind], THREADS, rate=RATE))
    scene.run()
    flood.end()
    scene.report(kind, flood, record_property)
    receiver = scene.receiver
    assert receiver.faults == [] and receiver.absent() == []
    assert receiver.recovered > TOTAL * LOSS / 2
    assert scene.prober.share_answered() > LEAST_ANSWERED
    assert milliseconds(receiver.recovery_seconds, 0.5) < 1000 * scaled(MEDIAN_RECOVERY_SECONDS)


class Member:
    """A receiver that pings once a second."""

    def __init__(self, number, net, closing):
        self.address = f"127.0.1.{number}"
        self._tag = tag(100 + number)
        self._sock = closing(udp_socket(self.address, 0, reuse=False))
        self._ping_address = ("127.0.0.1", net.destination)
        self._due = time.monotonic() + PING_SECONDS * number / MEMBERS
        self.ping()

    def ping(self):
        self._sock.sendto(self._tag, self._ping_address)

    def sockets(self):
        return {}

    def tick(self, now):
        if now >= self._due:
            self._due += PING_SECONDS
            self.ping()


@pytest.mark.parametrize("data", [b"", tag(0x6666)], ids=["empty_pings", "tagged_pings"])
def test_pings_at_full_rate_from_one_stranger_suspend_none_of_40_receivers(
    data, start_proxy, net, closing, tmp_path, record_property
):
    program = flooding.build(tmp_path)
    proxy = wait_bound(start_proxy(), net.destination, net.request)
    members = [Member(1 + i, net, closing) for i in range(MEMBERS)]
    wanted = [member.address for member in members]
    proxy.wait_stderr(ADDED, count=MEMBERS)
    flood = closing(flooding.Flood(program, ("127.0.0.1", net.destination), (STRANGER, 0), [data], rate=RATE))
    until = time.monotonic() + SUSPENSION_SECONDS
    drive(members, lambda: time.monotonic() > until, "the longest silence", timeout=2 * SUSPENSION_SECONDS)
    sent, dropped = flood.end(), kernel_drops(net.destination)
    assert control.request(net.instance, "List").split(",") == [*wanted, STRANGER], f"{dropped} of {sent} were dropped"
    assert "Stream suspended" not in proxy.stderr.text
    record_property("pings of the stranger a second", f"{flood.per_second:.0f}")
    print(f"{flood.per_second:.0f} pings/s of the stranger")
