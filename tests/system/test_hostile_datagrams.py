"""Datagrams that no receiver and no encoder would send, on all ports, while two receivers want their stream."""

import os
import random
import struct

import pytest

from txproxy import control, rtp
from txproxy.model_receiver import (
    ID_MAGIC,
    LONGEST_SHORT_DATAGRAM,
    STOP_MAGIC,
    PingingReceiver,
    Window,
    echo_ping,
    is_retransmission,
    request,
    retransmission_of,
    stamped,
    start_media,
    tag,
    wait_bound,
)
from txproxy.receiver import pump, udp_socket

RELEASE = os.environ.get("TX_PROXY_BUILD_KIND") == "release"
ROUNDS = 100 if RELEASE else 20
MEDIA_PER_ROUND = 24
HOSTILE_PER_ROUND = 40
SLICE_BYTES = 1536
LISTENER_BUFFERS = 1024
SEED = 7020
GOOD_ID = 0x600D600D
HOSTILE_ID = 0x0BAD0BAD
HOSTILE_ADDRESS = "127.0.0.66"
COUNTS = (1, 2, 763, 764, 4096, 32768, 65535)
WORDS = (0, 1, 2, 200, 32767, 32768, 65535)


def random_bytes(draw, longest=SLICE_BYTES + 64):
    return draw.randbytes(draw.choice((draw.randrange(0, 20), draw.randrange(0, longest))))


def random_tag(draw):
    """One of the four forms, or something close to one."""
    stream_id = draw.choice((0, HOSTILE_ID, HOSTILE_ID, draw.getrandbits(32)))
    magic = draw.choice((ID_MAGIC, STOP_MAGIC, ID_MAGIC[:3] + b"\xcf"))
    return tag(stream_id, magic, swapped=draw.random() < 0.5)


def random_request(draw):
    """A request whose checksum is right, with any window and with a count that may be far too large."""
    seqs = [draw.getrandbits(16) for _ in range(draw.choice((0, 1, 2, 30, 763)))]
    window = Window(*(draw.choice((*WORDS, draw.getrandbits(16))) for _ in range(3)))
    return request(seqs, window, count=draw.choice((*COUNTS, len(seqs))), trailer=draw.choice((b"", b"\xff")))


def cut(draw, data):
    return data[: draw.randrange(len(data) + 1)]


def for_the_request_port(draw):
    body = draw.choice(
        (
            random_request,
            random_request,
            lambda draw: cut(draw, random_request(draw)),
            lambda draw: echo_ping(draw.randbytes(draw.randrange(0, 8))),
            lambda draw: b"\0\0" + draw.randbytes(draw.randrange(0, 8)),
            random_bytes,
        )
    )(draw)
    return draw.choice((b"", b"", random_tag(draw), cut(draw, random_tag(draw)), random_tag(draw) * 2)) + body


def for_the_ping_port(draw):
    return draw.choice(
        (
            random_tag,
            lambda draw: cut(draw, random_tag(draw)),
            lambda draw: random_tag(draw) + random_bytes(draw),
            for_the_request_port,
            random_bytes,
            lambda _: b"",
        )
    )(draw)


def for_the_input(draw):
    """Never empty: the proxy takes an empty datagram for nothing, and the pump waits for each."""
    header = struct.pack("!BBHII", *(draw.getrandbits(bits) for bits in (8, 7, 16, 32, 32)))
    # With payload type 122 it would be taken for an answer below.
    data = draw.choice((draw.randbytes(draw.randrange(1, 12)), header, header + random_bytes(draw)))
    return data[:1] + b"\x21" + data[2:] if len(data) > 1 else data


class Scene:
    """A proxy with a configured and a learnt receiver, both well-behaved, and a stranger with streams of its own."""

    def __init__(self, proxy, sender, closing, lease, net):
        self.proxy = proxy
        self.sender = sender
        self.net = net
        self.configured = closing(PingingReceiver("127.0.0.2", net.destination, net))
        self.learnt = closing(PingingReceiver("127.0.0.5", lease.port(), net, stream_id=GOOD_ID))
        start_media(proxy, self.learnt)
        # Two ports, so that the stranger's media keeps moving; what comes there is never read.
        self.strangers = [closing(udp_socket(HOSTILE_ADDRESS, 0, reuse=False)) for _ in range(2)]
        # The ID comes first: behind a stream without ID it would not be unknown.
        self.strangers[0].sendto(tag(HOSTILE_ID), self.learnt.ping_address)
        self.strangers[0].sendto(b"", self.learnt.ping_address)
        proxy.wait_stderr(stamped(f"Process Ping: Added {HOSTILE_ADDRESS} stream ID:0x{HOSTILE_ID:08x}"))
        proxy.wait_stderr(stamped(f"Process Ping: Added {HOSTILE_ADDRESS} stream ID:0x00000000"))

    def good(self):
        return [self.configured, self.learnt]

    def attack(self, draw, make, address):
        for _ in range(HOSTILE_PER_ROUND):
            draw.choice(self.strangers).sendto(make(draw), address)

    def check_answers(self, wanted):
        """Both receivers get the packet that they ask for; its number is fresh, so nobody has asked before."""
        for receiver in self.good():
            sendings = [data for data in receiver.payloads if is_first_sending(data) and rtp.seq(data) == wanted]
            first = sendings[-1]
            receiver.ask([wanted])
            assert retransmission_of(first) in receiver.fence()


def is_first_sending(data):
    return len(data) > LONGEST_SHORT_DATAGRAM and not is_retransmission(data)


def media(first):
    return [rtp.packet(first + i, b"good %06d" % (first + i)) for i in range(MEDIA_PER_ROUND)]


@pytest.fixture
def scene(start_proxy, sender, closing, lease, net):
    proxy = wait_bound(start_proxy("-a", "127.0.0.2"), net.destination, net.request)
    return Scene(proxy, sender, closing, lease, net)


@pytest.mark.parametrize(
    "targets", [("request",), ("ping",), ("request", "ping")], ids=["request_port", "ping_port", "both_ports"]
)
def test_no_datagram_on_the_receivers_ports_crashes_the_proxy_or_costs_a_receiver_a_packet(scene, targets):
    draw = random.Random(SEED + sum(map(len, targets)))
    sent = []
    for number in range(ROUNDS):
        part = media(65000 + number * MEDIA_PER_ROUND)
        for target in targets:
            make = for_the_request_port if target == "request" else for_the_ping_port
            address = scene.learnt.request_address if target == "request" else scene.learnt.ping_address
            scene.attack(draw, make, address)
        pump(scene.sender, scene.good(), part)
        scene.learnt.ping()
        scene.check_answers(rtp.seq(part[0]))
        sent += part
    for receiver in scene.good():
        received = [rtp.without_timestamp(data) for data in receiver.payloads if is_first_sending(data)]
        assert received == sent
    # Behind them stand the streams of the stranger that its last datagrams have left.
    assert control.request(scene.net.instance, "List").split(",")[:2] == ["127.0.0.2", "127.0.0.5"]


def hostile_input(draw):
    """As it is to arrive: cut to the length of a slice."""
    data = [for_the_input(draw) for _ in range(HOSTILE_PER_ROUND)]
    return data, [part[:SLICE_BYTES] for part in data]


def test_no_input_datagram_crashes_the_proxy_or_costs_a_receiver_a_packet(scene):
    draw = random.Random(SEED)
    expected = []
    for number in range(ROUNDS):
        part = media(65000 + number * MEDIA_PER_ROUND)
        pump(scene.sender, scene.good(), part)
        # Asked for before hostile numbers can take the places of these packets in the ring.
        scene.check_answers(rtp.seq(part[0]))
        sent, arriving = hostile_input(draw)
        pump(scene.sender, scene.good(), sent)
        scene.learnt.ping()
        expected += part + arriving
    for receiver in scene.good():
        # Answers and echoes left out; short datagrams come as they were sent.
        answers = {retransmission_of(data) for data in receiver.payloads if len(data) > LONGEST_SHORT_DATAGRAM}
        received = [data for data in receiver.payloads if data not in answers and not data.startswith(echo_ping())]
        assert [rtp.without_timestamp(data) for data in received] == [rtp.without_timestamp(d) for d in expected]


def test_no_input_datagram_in_udp_input_mode_is_lost_or_changed(start_proxy, sender, closing, lease, net):
    proxy = wait_bound(start_proxy("-a", "127.0.0.2", "-u"), net.destination, net.request)
    scene = Scene(proxy, sender, closing, lease, net)
    draw = random.Random(SEED)
    expected = []
    for _ in range(ROUNDS):
        sent, arriving = hostile_input(draw)
        pump(scene.sender, scene.good(), sent)
        scene.attack(draw, for_the_request_port, scene.learnt.request_address)
        scene.attack(draw, for_the_ping_port, scene.learnt.ping_address)
        scene.learnt.ping()
        scene.check_answers(len(expected) + 1 & 0xFFFF)
        expected += arriving
    for receiver in scene.good():
        received = [data for data in receiver.payloads if is_first_sending(data)]
        assert [rtp.seq(data) for data in received] == list(range(1, len(expected) + 1))
        assert [rtp.payload(data) for data in received] == expected


@pytest.mark.parametrize("count", [763, 764, 65535])
def test_the_longest_list_with_an_over_stated_count_is_survived_in_every_buffer(scene, count):
    pump(scene.sender, scene.good(), media(1000))
    seqs = list(range(1000, 1000 + (SLICE_BYTES - 10) // 2))
    lists = [request(seqs, Window(*words), count=count) for words in ((0, 0, 0), (2, 200, 0), (65535,) * 3)]
    # One list more than the listener has buffers: the last buffer is read past its end too.
    sent = 0
    while sent <= LISTENER_BUFFERS:
        for _ in range(HOSTILE_PER_ROUND):
            scene.strangers[0].sendto(lists[sent % len(lists)], scene.learnt.request_address)
            sent += 1
        scene.learnt.ping()
        scene.learnt.fence()
    scene.check_answers(1000)
