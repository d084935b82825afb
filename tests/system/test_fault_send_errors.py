"""Sends to one receiver fail, in every way that a network has: the others lose nothing and wait for nothing.

Every send that fails is one line of log, nothing is retried or queued, and when the fault is over the next packet
goes out as before. What the receiver missed it gets by asking, as far as its window reaches back.
"""

import errno
import subprocess
import time

import pytest

from txproxy import netns, preload, send_faults
from txproxy.model_receiver import WIDE_WINDOW, PingingReceiver, start_media, wait_bound
from txproxy.receiver import Receiver, Sender
from txproxy.send_faults import (
    PACKETS_PER_SECOND,
    Stream,
    check_whole,
    complaint,
    first_sendings,
    index_of,
    lines_of_sends,
    wait_last,
    wait_more,
)
from txproxy.shaping import SlowCable
from txproxy.traffic import Steady
from txproxy.waiting import Lateness, scaled, wait_until

FAULTY = netns.peer_address(0)
OTHER = netns.peer_address(1)
LEARNT = "10.77.1.4"
LONGEST_GAP_SECONDS = 0.1
TURN_SECONDS = 0.001
ASKED_AT_ONCE = 200
PINGS_PER_SECOND = 1
BARELY_MOVING = "20kbit"
STANDSTILL_SECONDS = 0.15
SLOW_STREAM = 300  # packets a second: the queue and the input's buffer have room for 3 s
SHORT_MTU = 600
RING = 32768  # packets: a change of routes may wait for many other namespaces to come and go
INJECTED = [
    errno.EAGAIN, errno.ENOBUFS, errno.EPERM, errno.EMSGSIZE, errno.ENETDOWN, errno.ENOMEM, errno.ECONNREFUSED,
]  # fmt: skip
# By the error that they bring: routes in the place of the receiver's own.
BAD_ROUTES = {errno.EHOSTUNREACH: "unreachable", errno.EACCES: "prohibit", errno.EINVAL: "blackhole"}
FIREWALL = "table ip fault {{ chain output {{ type filter hook output priority 0; ip daddr {} {}; }}; }}"


class Pings:
    """Takes the place of a sender: the receiver pings, whatever is to be sent."""

    def __init__(self, receiver):
        self._receiver = receiver

    def send(self, data):
        self._receiver.ping(data)


class Scene:
    """A proxy with a stream to a receiver whose sends will fail, and to two others on another cable."""

    def __init__(self, make_lan, start_proxy, closing, lease, net, record_property, *options,
                 per_second=PACKETS_PER_SECOND, **keywords):  # fmt: skip
        self.lan = make_lan(2)
        self.lan.peer.ip("addr", "add", f"{LEARNT}/24", "dev", "eth1")
        self._closing, self._net, self._record = closing, net, record_property
        self._earlier = []
        self.faulty = self._open_faulty()
        self.other = closing(Receiver(OTHER, net.destination, namespace=self.lan.peer))
        self.learnt = closing(PingingReceiver(
            LEARNT, lease.port(), net, 7, proxy_address=netns.proxy_address(1), namespace=self.lan.peer
        ))  # fmt: skip
        self.proxy = start_proxy("-a", f"{FAULTY},{OTHER}", "-q", RING, *options, namespace=self.lan.proxy, **keywords)
        wait_bound(self.proxy, net.destination, net.request)
        start_media(self.proxy, self.learnt)
        closing(Steady(Pings(self.learnt), lambda _: b"", PINGS_PER_SECOND))
        self.lateness = closing(Lateness(TURN_SECONDS))
        is_raw = "-u" in options
        self._first_seq = send_faults.FIRST_BUILT_SEQ if is_raw else send_faults.FIRST_SEQ
        sender = closing(Sender("127.0.0.1", net.input, namespace=self.lan.proxy))
        self.stream = closing(Stream(sender, send_faults.payload if is_raw else send_faults.media, per_second))
        wait_more(self.faulty)

    def _open_faulty(self):
        return PingingReceiver(
            FAULTY, self._net.destination, self._net, proxy_address=netns.proxy_address(0), namespace=self.lan.peer
        )

    def close_port(self):
        self.faulty.close()
        self._earlier = first_sendings(self.faulty)

    def reopen_port(self):
        self.faulty = self._open_faulty()

    def pass_time(self):
        """250 packets of the stream pass by the others."""
        for other in self.others():
            wait_more(other)

    def others(self):
        return [self.other, self.learnt]

    def end(self, longest_gap=LONGEST_GAP_SECONDS):
        """The fault is over: checks what everybody has in the end; returns how many the faulty one missed."""
        wait_more(self.faulty)
        for receiver in [*self.others(), self.faulty]:
            wait_last(self.stream, receiver)
        gap = max(check_whole(other, self.stream.sent) for other in self.others())
        have = {index for index, _ in self._earlier + first_sendings(self.faulty)}
        missed = sorted(set(range(self.stream.sent)) - have)
        self._recover(missed)
        text = f"missed {len(missed)} of {self.stream.sent}, longest gap of the others {1000 * gap:.0f} ms"
        print(text)
        self._record("the receiver", text)
        assert gap < scaled(longest_gap) + self.lateness.allowed()
        self.faulty.close()
        return len(missed)

    def _recover(self, missed):
        for start in range(0, len(missed), ASKED_AT_ONCE):
            asked = missed[start : start + ASKED_AT_ONCE]
            self.faulty.ask([self._first_seq + index for index in asked], WIDE_WINDOW)
            self.faulty.settle()
        assert set(missed) <= {index_of(data) for data in self.faulty.payloads}

    def wait_complaint(self, error):
        wait_until(lambda: complaint(error) in self.proxy.stderr.text, complaint(error))

    def check_complaints(self, error, count):
        """What the log says about sends is `count` times this error and nothing else."""
        assert lines_of_sends(self.proxy) == {complaint(error)}
        assert len(self.proxy.stderr.find(complaint(error))) == count


@pytest.fixture
def make_scene(make_lan, start_proxy, closing, lease, net, record_property):
    return lambda *options, **keywords: Scene(
        make_lan, start_proxy, closing, lease, net, record_property, *options, **keywords
    )


def suffer(scene, error, begin, end):
    """The whole story of a fault that makes sends fail with this error."""
    begin()
    scene.wait_complaint(error)
    scene.pass_time()
    end()
    missed = scene.end()
    assert missed > 0
    scene.check_complaints(error, missed)


@pytest.fixture(scope="module")
def library_folder(tmp_path_factory):
    return tmp_path_factory.mktemp("library")


@pytest.mark.parametrize("options", [(), ("-u",)], ids=["rtp", "udp"])
@pytest.mark.parametrize("error", INJECTED, ids=[errno.errorcode[error] for error in INJECTED])
def test_a_send_that_fails_costs_its_receiver_the_packet_and_nobody_else_anything(
    error, options, make_scene, library_folder, tmp_path
):
    wanted, staged = tmp_path / "refused", tmp_path / "staged"
    scene = make_scene(*options, env=preload.environment(library_folder, "refuse_sends", REFUSED_SENDS=str(wanted)))
    staged.write_text(f"{FAULTY} {error}")
    suffer(scene, error, lambda: staged.rename(wanted), wanted.unlink)


def test_a_destination_without_a_route_is_complained_of_and_costs_the_others_nothing(make_scene):
    scene = make_scene()
    route = ("10.77.0.0/24", "dev", "eth0", "src", netns.proxy_address(0))
    suffer(
        scene,
        errno.ENETUNREACH,
        lambda: scene.lan.proxy.ip("route", "del", *route),
        lambda: scene.lan.proxy.ip("route", "add", *route),
    )


@pytest.mark.parametrize("error", BAD_ROUTES, ids=[errno.errorcode[error] for error in BAD_ROUTES])
def test_a_destination_that_routing_refuses_is_complained_of_and_costs_the_others_nothing(error, make_scene):
    scene = make_scene()
    route = (BAD_ROUTES[error], f"{FAULTY}/32")
    suffer(
        scene,
        error,
        lambda: scene.lan.proxy.ip("route", "add", *route),
        lambda: scene.lan.proxy.ip("route", "del", *route),
    )


@pytest.mark.parametrize("verdict", ["drop", "reject"])
def test_a_firewall_that_refuses_a_destination_is_complained_of_and_costs_the_others_nothing(verdict, make_scene):
    scene = make_scene()

    def nft(*arguments):
        command = ["ip", "netns", "exec", scene.lan.proxy.name, "nft", *arguments]
        subprocess.run(command, check=True, capture_output=True)

    suffer(
        scene,
        errno.EPERM,
        lambda: nft(FIREWALL.format(FAULTY, verdict)),
        lambda: nft("delete", "table", "ip", "fault"),
    )


def test_a_receiver_whose_port_is_closed_is_sent_to_in_silence_and_costs_the_others_nothing(make_scene):
    scene = make_scene()
    scene.close_port()
    scene.pass_time()
    scene.reopen_port()
    assert scene.end() > 0
    assert lines_of_sends(scene.proxy) == set()


def test_datagrams_longer_than_the_mtu_arrive_whole_and_nothing_is_complained_of(make_scene):
    scene = make_scene()
    for side in (scene.lan.proxy, scene.lan.peer):
        side.ip("link", "set", "eth0", "mtu", SHORT_MTU)
    scene.pass_time()
    assert scene.end() == 0
    assert lines_of_sends(scene.proxy) == set()


def test_a_full_send_buffer_delays_everybody_and_costs_nobody_a_packet_while_the_queue_has_room(make_scene):
    scene = make_scene(per_second=SLOW_STREAM)
    cable = SlowCable(scene.lan, BARELY_MOVING)

    def stands_still():
        before, sent = scene.other.count(), scene.stream.sent
        time.sleep(STANDSTILL_SECONDS)  # a span to look at, not a wait
        return scene.stream.sent > sent and scene.other.count() == before

    wait_until(stands_still, "everybody to wait")
    last = scene.other.datagrams[-1].time
    cable.free()
    scene.end(longest_gap=time.time() - last + LONGEST_GAP_SECONDS)
    assert lines_of_sends(scene.proxy) == set()
