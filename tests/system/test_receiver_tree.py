"""A tree of proxies: arqrx feeds each proxy below the first, so that every hop repairs what it lost itself.

One proxy, three below it, forty receivers below each of these: four hundred times as much leaves the tree's end as came
in. Every host has a network namespace of its own, and every hop a line that loses 2 % each way.
"""

import itertools
import random
import struct

import pytest

from txproxy import arqrx, link, netns, ports, receiver, rtp
from txproxy.waiting import wait_until

MIDDLES = 3
LEAVES = 40  # below each
LOSS = "2%"
LATENCY_SECONDS = 5.0  # room for many tries, and for a machine that lets programs wait for seconds
PAYLOAD_BYTES = 1316
PER_SECOND = 100  # 1.05 Mbit/s
BODY = 600  # packets that are compared
FIRST_SEQ = 65300  # the numbers come round
LENGTH_BYTES = 2  # before each packet in a file that keeps RTP (RFC 4571)


class Host(netns.Namespace):
    """A namespace with a proxy's ports; hosts are wired two by two."""

    _subnets = itertools.count()

    def __init__(self, lease):
        super().__init__()
        self.instance = lease.instance
        self.input, self.ping, self.request = lease.port(), lease.port(), lease.port()
        self.above = None  # the address of the host above, as it is seen from here

    def hang_below(self, upper):
        subnet, name = f"10.78.{next(self._subnets)}", f"up{self.instance}"
        upper.ip("link", "add", name, "type", "veth", "peer", "name", "eth0", "netns", self.name)
        for side, address, device in ((upper, 1, name), (self, 2, "eth0")):
            side.ip("addr", "add", f"{subnet}.{address}/24", "dev", device)
            side.ip("link", "set", device, "up")
        upper.wait_cables()
        self.wait_cables()
        self.above = f"{subnet}.1"


class Tree:
    def __init__(self, closing, launch, directory):
        self._closing = closing
        self._launch = launch
        self._directory = directory
        self._seeds = itertools.count(1)
        self.top = self._host()
        self.middles = [self._host(self.top) for _ in range(MIDDLES)]
        self.bottoms = [self._host(middle) for middle in self.middles]
        for host in (self.top, *self.middles):
            self._start_proxy(host)
        self.feeds = [self._feed(host, stream_id) for stream_id, host in enumerate(self.middles, 1)]
        self.leaves = []
        for middle, bottom in zip(self.middles, self.bottoms):
            self.leaves += self._leaves(bottom, middle)

    def _host(self, upper=None):
        host = self._closing(Host(self._closing(ports.Lease())))
        if upper:
            host.hang_below(upper)
        return host

    def _start_proxy(self, host):
        options = ("-I", host.instance, "-p", host.ping, "-r", host.request, host.input)
        self._launch(*options, namespace=host).wait_ready()

    def _line(self, host, upper):
        """Ping and request port of the proxy above, as they are reached from here: over a bad line."""
        targets = [(host.above, upper.ping), (host.above, upper.request)]
        line = link.Link(targets, "--loss", LOSS, "--seed", next(self._seeds), namespace=host, interval="10s")
        (_, ping), (_, request) = self._closing(line).listen
        return ping, request

    def _start_receiver(self, host, line, stream_id, output):
        ping, request = line
        return self._closing(
            arqrx.Arqrx(f"127.0.0.1:{ping}", "--request-port", request, "--id", stream_id, "--json", "--interval", "60s",
                        "--latency", arqrx.seconds(LATENCY_SECONDS), "--output", output, "--keep-rtp", namespace=host)  # fmt: skip
        )

    def _feed(self, host, stream_id):
        """What the proxy of this host gets; a proxy knows those below it by their IDs."""
        return self._start_receiver(host, self._line(host, self.top), stream_id, f"rtp://127.0.0.1:{host.input}")

    def _leaves(self, host, upper):
        line = self._line(host, upper)
        for stream_id in range(1, LEAVES + 1):
            path = self._directory / f"{host.instance}_{stream_id}.rtp"
            yield self._start_receiver(host, line, stream_id, f"file:{path}"), path


def read_packets(path):
    """The RTP datagrams of a file that keeps them."""
    data = path.read_bytes()
    step = LENGTH_BYTES + rtp.HEADER_BYTES + PAYLOAD_BYTES
    assert len(data) % step == 0
    for at in range(0, len(data), step):
        assert struct.unpack_from("!H", data, at) == (step - LENGTH_BYTES,)
        yield data[at + LENGTH_BYTES : at + step]


def last_payload(path):
    with open(path, "rb") as file:
        file.seek(0, 2)
        if file.tell() < PAYLOAD_BYTES:
            return b""
        file.seek(-PAYLOAD_BYTES, 2)
        return file.read()


class Source:
    """Sends evenly and numbers what it sends."""

    def __init__(self, sender):
        self._sender = sender
        self.sent = []

    def send(self, payloads):
        packets = [
            rtp.packet(FIRST_SEQ + number, payload) for number, payload in enumerate(payloads, len(self.sent))
        ]
        self.sent += payloads
        arqrx.send_evenly(self._sender, packets, PER_SECOND)

    def send_until(self, payload, condition, what):
        """What nobody compares: at its beginning and its end a stream may lose what nobody can miss."""

        def sent():
            self.send([payload] * (PER_SECOND // 10))
            return condition()

        wait_until(sent, what, timeout=30)


def check_output(path, sent):
    """It begins somewhere in the lead, goes on without a gap and holds what was sent under each number."""
    packets = list(read_packets(path))
    first = (rtp.seq(packets[0]) - FIRST_SEQ) & 0xFFFF
    assert [rtp.seq(data) for data in packets] == [(FIRST_SEQ + first + i) & 0xFFFF for i in range(len(packets))]
    assert [rtp.payload(data) for data in packets] == sent[first : first + len(packets)]
    assert {rtp.payload_type(data) for data in packets} == {rtp.MEDIA_PAYLOAD_TYPE}
    return first, len(packets)


def end(receivers):
    """Ends them all; returns the last figures of each. What is still missing in their buffers counts as lost then."""
    for one in receivers:
        one.process.terminate()
    for one in receivers:
        assert one.wait_exit() == arqrx.GOOD, one.figures()
    return [one.figures() for one in receivers]


@pytest.mark.release_only
def test_each_hop_of_a_tree_with_120_receivers_repairs_its_own_loss(closing, launch, tmp_path):
    tree = Tree(closing, launch, tmp_path)
    source = Source(closing(receiver.Sender("127.0.0.1", tree.top.input, namespace=tree.top)))
    lead, tail = (mark * PAYLOAD_BYTES for mark in (b"L", b"T"))
    paths = [path for _, path in tree.leaves]
    source.send_until(lead, lambda: all(last_payload(path) for path in paths), "all receivers to play")
    begin = len(source.sent)
    source.send([random.Random(number).randbytes(PAYLOAD_BYTES) for number in range(BODY)])
    source.send_until(tail, lambda: all(last_payload(path) == tail for path in paths), "all of it to be played")
    figures = end([one for one, _ in tree.leaves])
    feeds = end(tree.feeds)

    for path, counted in zip(paths, figures):
        first, count = check_output(path, source.sent)
        assert first < begin and counted["packets_played"] == count
    for counted in (*figures, *feeds):
        assert counted["packets_recovered"] > 0 and counted["packets_late"] == 0, counted
    missing = sum(counted["packets_missing"] for counted in figures)
    came = sum(counted["packets_received"] - counted["packets_resent"] for counted in figures)
    assert 0.015 < missing / (missing + came) < 0.025
