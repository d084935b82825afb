"""Receivers that come when the proxy has no free descriptor."""

import pathlib
import re
import time

import pytest

from txproxy import control, rtp
from txproxy.model_receiver import PingingReceiver, raw_port, stamped, start_media, wait_bound
from txproxy.process import NoFreeDescriptor
from txproxy.receiver import pump
from txproxy.waiting import Lateness, scaled, wait_until

CONFIGURED = "127.0.0.2"
EARLY = "127.0.0.9"
SHORTEST_SILENCE_SECONDS = 5.0
LONGEST_SILENCE_SECONDS = 10.0
SLOW_MACHINE_SECONDS = 1.0
TURN_SECONDS = 0.1  # the proxy's sleep between two looks at its streams
BAD_DESCRIPTOR = "SendData failed: Bad file descriptor"


@pytest.fixture
def proxy(start_proxy, net):
    """No client has come and no receiver has gone, so every descriptor that was ever opened stays open."""
    proxy = wait_bound(start_proxy("-a", CONFIGURED), net.destination, net.request)
    wait_until(pathlib.Path(control.path(net.instance)).exists, "the control socket")
    return proxy


@pytest.fixture
def early(proxy, learn):
    return start_media(proxy, learn(EARLY))


@pytest.fixture
def configured(early, closing, sender, net):
    """The configured receiver; it and an early one have been served and echoed.

    So everything has happened once that happens later: a sanitizer that looks at something for the first time
    may need a descriptor itself.
    """
    configured = closing(PingingReceiver(CONFIGURED, net.destination, net))
    wait_until(lambda: is_served(sender, early), "media to the early receiver")
    wait_for_pings(early)
    wait_for_pings(configured)
    return configured


def media(count, first=100):
    return [rtp.packet(first + i, b"payload %d" % i) for i in range(count)]


def wait_for_pings(receiver):
    """Waits until all pings sent before are handled.

    The listen thread serves both ports in turn, so the second echo comes from a turn after theirs.
    """
    receiver.fence()
    receiver.fence()
    receiver.clear()


def is_served(sender, receiver):
    """Sends media and says whether the receiver has ever got some."""
    sender.send(media(1)[0])
    return receiver.count() > 0


@pytest.mark.parametrize("stream_id", [None, 7])
def test_a_receiver_that_joined_without_a_free_descriptor_gets_media_after_its_next_ping(
    proxy, configured, learn, sender, net, stream_id
):
    receiver = learn(stream_id=stream_id)
    with NoFreeDescriptor(proxy):
        for _ in range(3):
            receiver.ping()
            wait_for_pings(configured)
            pump(sender, [configured], media(5))
    assert receiver.count() == 0
    receiver.ping()
    wait_until(lambda: is_served(sender, receiver), "media after the ping")
    proxy.wait_stderr(
        stamped(
            f"Media started on port {raw_port(receiver.port)} for {receiver.address[0]} ID:0x{stream_id or 0:08x}"
        )
    )
    assert control.request(net.instance, "List") == f"{CONFIGURED},{EARLY},{receiver.address[0]}"
    # From the ping port, as to any other receiver, and without a loss.
    sent = media(20, first=200)
    for data in sent:
        sender.send(data)
    receiver.wait_for(lambda datagram: rtp.seq(datagram.data) == rtp.seq(sent[-1]))
    assert [rtp.seq(data) for data in receiver.payloads[-len(sent) :]] == [rtp.seq(data) for data in sent]
    assert {datagram.source[1] for datagram in receiver.datagrams} == {net.destination}
    assert proxy.stderr.find(BAD_DESCRIPTOR) == []


def test_the_others_are_served_in_peace_while_a_receiver_waits_for_a_descriptor(
    proxy, configured, early, learn, sender
):
    late = learn("127.0.0.6")
    with NoFreeDescriptor(proxy):
        late.ping()
        wait_for_pings(configured)
        early.clear()
        pump(sender, [configured, early], media(50))
    assert late.count() == 0
    assert proxy.stderr.find(BAD_DESCRIPTOR) == []


@pytest.mark.parametrize("stream_id", [None, 7])
def test_a_silent_receiver_whose_media_never_started_is_removed_like_any_other(
    proxy, configured, learn, net, stream_id, closing
):
    late = learn("127.0.0.6", stream_id=stream_id)
    suspended = stamped("Stream suspended for 127.0.0.6")
    lateness = closing(Lateness(TURN_SECONDS))
    with NoFreeDescriptor(proxy):
        pinged = time.monotonic()
        late.ping()
        wait_for_pings(configured)
        handled = time.monotonic()
    assert control.request(net.instance, "List") == f"{CONFIGURED},{EARLY},127.0.0.6"
    proxy.wait_stderr(suspended)
    assert time.monotonic() - pinged >= SHORTEST_SILENCE_SECONDS
    assert time.monotonic() - handled < LONGEST_SILENCE_SECONDS + scaled(SLOW_MACHINE_SECONDS) + lateness.allowed()
    assert "127.0.0.6" not in control.request(net.instance, "List")
    assert not re.search("Media started on port .* for 127.0.0.6", proxy.stderr.text)
    assert "Stream stopped for" not in proxy.stderr.text
