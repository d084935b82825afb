"""A destination whose cable is too slow blocks the sending thread, and nobody else.

The slow destination is a configured one with a socket of its own. Media to all wait while it blocks; pings,
requests and commands of the others do not.
"""

import statistics
import time

import pytest

from txproxy import control, netns, rtp
from txproxy.model_receiver import (
    STOP_MESSAGE,
    PingingReceiver,
    echo_ping,
    stamped,
    start_media,
    wait_bound,
)
from txproxy.process import cpu_seconds, descriptors
from txproxy.receiver import Receiver, Sender
from txproxy.shaping import SLOW_PEER, SlowCable
from txproxy.traffic import Steady
from txproxy.waiting import TURN_SECONDS, Lateness, scaled, wait_until, within

FAST_PROXY = netns.proxy_address(1)
FAST_PEER = netns.peer_address(1)
ADDED_PEER = "10.77.1.3"
LEARNT_PEER = "10.77.1.4"  # an address of its own: a ping from a configured one makes no stream
BARELY_MOVING = "20kbit"
TOO_SLOW = "500kbit"
PACKET_BYTES = 1400
PACKETS_PER_SECOND = 1000  # 11 Mbit/s
STANDSTILL_SECONDS = 0.15
ECHO_SECONDS = 0.25
COMMAND_SECONDS = 1.0
MEDIA_SECONDS = 1.0
SILENCE_SECONDS = 10.0
LOOK_SECONDS = 0.1  # the proxy's sleep between two looks at its streams
SLOW_MACHINE_SECONDS = 1.0
LARGEST_PROCESSOR_SHARE = 0.3
NEWCOMERS = 5
HELD_SECONDS = 12  # longer than the longest silence that a stream outlives
ECHOES_THAT_BLOCK = 50  # a few of them find room while the media wait


def media(number):
    return rtp.packet(number, bytes(PACKET_BYTES - rtp.HEADER_BYTES))


class Scene:
    """A proxy with a slow and a fast configured destination, and input that never ends."""

    def __init__(self, rate, lan, start_proxy, closing, lease, net):
        self._closing, self._lease, self._net, self._lan = closing, lease, net, lan
        for address in (ADDED_PEER, LEARNT_PEER):
            lan.peer.ip("addr", "add", f"{address}/24", "dev", "eth1")
        self.cable = SlowCable(lan, rate)
        self.slow = closing(Receiver(SLOW_PEER, net.destination, namespace=lan.peer))
        self.fast = closing(Receiver(FAST_PEER, net.destination, namespace=lan.peer))
        self.proxy = start_proxy("-a", f"{SLOW_PEER},{FAST_PEER}", namespace=lan.proxy)
        wait_bound(self.proxy, net.destination, net.request)
        self._sender = closing(Sender("127.0.0.1", net.input, namespace=lan.proxy))

    def learn(self, stream_id):
        """A receiver on the fast cable that has not pinged yet."""
        return self._closing(
            PingingReceiver(
                LEARNT_PEER,
                self._lease.port(),
                self._net,
                stream_id,
                proxy_address=FAST_PROXY,
                namespace=self._lan.peer,
            )
        )

    def block(self):
        """Lets the input flow and waits until the slow destination holds everything up."""
        stream = self._closing(Steady(self._sender, media, PACKETS_PER_SECOND))
        wait_until(lambda: self._stands_still(stream), "the slow destination to block")

    def _stands_still(self, stream):
        """Nothing comes though much is sent: a machine that holds up the stream itself blocks nobody."""
        before, sent = self.fast.count(), stream.sent
        time.sleep(STANDSTILL_SECONDS)  # a span to look at, not a wait
        return stream.sent - sent > PACKETS_PER_SECOND * STANDSTILL_SECONDS / 2 and before == self.fast.count() > 0

    def echo_to_slow(self, count=1):
        """The slow receiver asks for echoes, which come to it by the cable that the media come by."""
        for _ in range(count):
            self.slow.send(echo_ping(b"slow"), (netns.proxy_address(0), self._net.request))

    def command(self, text):
        """The reply and how long it took."""
        began = time.monotonic()
        reply = control.request(self._net.instance, text)
        return reply, time.monotonic() - began

    def added(self, stream_id):
        self.proxy.wait_stderr(stamped(f"Process Ping: Added {LEARNT_PEER} stream ID:0x{stream_id:08x}"))


@pytest.fixture
def make_scene(make_lan, start_proxy, closing, lease, net):
    return lambda rate: Scene(rate, make_lan(2), start_proxy, closing, lease, net)


def echo_seconds(receiver, serial):
    """How long a ping on the request port takes to come back."""
    mark = echo_ping(bytes([serial]))
    began = time.monotonic()
    receiver.ask_raw(mark)
    receiver.wait_for(lambda datagram: datagram.data == mark)
    return time.monotonic() - began


@pytest.mark.parametrize("rate", [BARELY_MOVING, TOO_SLOW])
def test_requests_of_others_are_echoed_at_once_also_right_after_a_new_receiver_has_joined(make_scene, rate, closing):
    scene = make_scene(rate)
    receiver = start_media(scene.proxy, scene.learn(1))
    newcomers = [scene.learn(2 + i) for i in range(NEWCOMERS)]
    scene.block()
    lateness = closing(Lateness(TURN_SECONDS))

    def check_median(seconds):
        assert statistics.median(seconds) < scaled(ECHO_SECONDS) + lateness.allowed(), seconds

    check_median([echo_seconds(receiver, i) for i in range(NEWCOMERS)])
    after_joins = []
    for i, newcomer in enumerate(newcomers):
        newcomer.ping()
        after_joins.append(echo_seconds(receiver, 100 + i))
    check_median(after_joins)
    # The newcomers are streams like any other, and leave like them.
    check_median([echo_seconds(newcomer, 200) for newcomer in newcomers])
    newcomers[0].stop()
    with within(COMMAND_SECONDS):
        echo_seconds(receiver, 201)


@pytest.mark.parametrize("rate", [BARELY_MOVING, TOO_SLOW])
def test_commands_are_answered_at_once(make_scene, rate, closing):
    scene = make_scene(rate)
    newcomer = scene.learn(7)
    scene.block()
    newcomer.ping()
    scene.added(7)
    lateness = closing(Lateness(TURN_SECONDS))
    took = {}
    for text, wanted in (
        (f"Add {ADDED_PEER}", f"OK: Adding: {ADDED_PEER}"),
        ("List", f"{SLOW_PEER},{FAST_PEER},{LEARNT_PEER},{ADDED_PEER}"),
        (f"Delete {ADDED_PEER}", f"OK: Deleting: {ADDED_PEER}"),
    ):
        reply, took[text] = scene.command(text)
        assert reply == wanted
    reply, took["AllStats"] = scene.command("AllStats")
    assert reply.endswith(f"CLIENTS={SLOW_PEER},{FAST_PEER},{LEARNT_PEER}")
    assert max(took.values()) < scaled(COMMAND_SECONDS) + lateness.allowed(), took


def test_receivers_join_stop_and_expire_meanwhile_no_core_is_burnt_and_nothing_is_left_over(make_scene, closing):
    scene = make_scene(BARELY_MOVING)
    leaving, _, pinging = (start_media(scene.proxy, scene.learn(stream_id)) for stream_id in (1, 2, 3))
    last_ping = time.monotonic()
    lateness = closing(Lateness(LOOK_SECONDS))
    usual = descriptors(scene.proxy.pid)
    scene.block()
    began, used = time.monotonic(), cpu_seconds(scene.proxy.pid)
    for stream_id in range(10, 10 + NEWCOMERS):
        newcomer = scene.learn(stream_id)
        newcomer.ping()
        scene.added(stream_id)
        newcomer.stop()
        scene.proxy.wait_stderr(stamped(f"Stream stopped for {LEARNT_PEER} ID:0x{stream_id:08x}"))
    leaving.stop()
    scene.proxy.wait_stderr(stamped(f"Stream stopped for {LEARNT_PEER} ID:0x00000001"))
    next_ping = time.monotonic()

    def silent_one_is_gone():
        nonlocal next_ping
        if time.monotonic() >= next_ping:
            pinging.ping()
            next_ping += 1
        return scene.proxy.stderr.find(stamped(f"Stream suspended for {LEARNT_PEER}"))

    wait_until(silent_one_is_gone, "the end of the silent receiver", timeout=3 * SILENCE_SECONDS)
    assert time.monotonic() - last_ping < SILENCE_SECONDS + SLOW_MACHINE_SECONDS + lateness.allowed()
    assert scene.command("List")[0] == f"{SLOW_PEER},{FAST_PEER},{LEARNT_PEER}"
    assert cpu_seconds(scene.proxy.pid) - used < LARGEST_PROCESSOR_SHARE * (time.monotonic() - began)
    scene.cable.free()
    # Two of the first three are gone, with a socket each.
    wait_until(
        lambda: len(descriptors(scene.proxy.pid)) == len(usual) - 2,
        lambda: f"{len(usual) - 2} descriptors, there are {len(descriptors(scene.proxy.pid))}",
    )
    pinging.clear()
    pinging.wait_count(PACKETS_PER_SECOND)


def test_deleting_the_blocked_destination_is_answered_at_once_and_sets_media_to_the_others_free(make_scene):
    scene = make_scene(BARELY_MOVING)
    receiver = start_media(scene.proxy, scene.learn(1))
    before = len(descriptors(scene.proxy.pid))
    scene.block()
    with within(COMMAND_SECONDS):
        assert scene.command(f"Delete {SLOW_PEER}")[0] == f"OK: Deleting: {SLOW_PEER}"
    with within(MEDIA_SECONDS + SLOW_MACHINE_SECONDS):
        for other in (scene.fast, receiver):
            other.clear()
        for other in (scene.fast, receiver):
            other.wait_count(int(PACKETS_PER_SECOND / 2))
    assert set(scene.command("List")[0].split(",")) == {FAST_PEER, LEARNT_PEER}
    # Its socket goes with it.
    wait_until(lambda: len(descriptors(scene.proxy.pid)) == before - 1, "the socket of the deleted stream to go")
    assert STOP_MESSAGE not in scene.fast.payloads


def test_a_receiver_that_pings_is_not_suspended_while_an_echo_to_the_slow_one_holds_up_who_takes_pings(make_scene):
    scene = make_scene(BARELY_MOVING)
    pinging = start_media(scene.proxy, scene.learn(1))
    # Also lets the slow peer learn the proxy's link address: the answer would have to wait behind the media.
    scene.echo_to_slow()
    scene.slow.wait_count(1)
    scene.block()
    scene.echo_to_slow(ECHOES_THAT_BLOCK)
    mark = echo_ping(b"held")
    pinging.ask_raw(mark)
    for _ in range(HELD_SECONDS):
        pinging.ping()
        time.sleep(1)  # a span to look at, not a wait
        assert "Stream suspended" not in scene.proxy.stderr.text
    assert mark not in pinging.payloads, "nobody was held up"
    assert scene.command(f"Delete {SLOW_PEER}")[0] == f"OK: Deleting: {SLOW_PEER}"
    pinging.wait_for(lambda datagram: datagram.data == mark)
    for other in (scene.fast, pinging):
        other.clear()
        other.wait_count(PACKETS_PER_SECOND)
    with within(COMMAND_SECONDS):
        echo_seconds(pinging, 1)
    assert set(scene.command("List")[0].split(",")) == {FAST_PEER, LEARNT_PEER}
    assert "Stream suspended" not in scene.proxy.stderr.text
