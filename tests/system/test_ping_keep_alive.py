"""Receivers have to ping at least once in 5 seconds. All cases wait side by side, for one test takes 11 s."""

import time
import types

import pytest

from txproxy import control, ports, rtp
from txproxy.model_receiver import (
    PingingReceiver,
    media_started,
    settled_by_list,
    stamped,
    start_media,
    wait_bound,
)
from txproxy.receiver import Sender, pump
from txproxy.waiting import Lateness, wait_until

PING_SECONDS = 2
STAY_SECONDS = 10.5  # longer than a silent receiver can last
SHORTEST_SECONDS = 5
LONGEST_SECONDS = 10
TURN_SECONDS = 0.1  # the proxy's sleep between two looks
SLACK_SECONDS = 0.5
CLOCK_STEP_SECONDS = 0.01


# The test's own socket at 127.0.0.1 would take what is sent to the ping port there.
PROXY_ADDRESS = "127.0.0.99"


def media(count, first=0):
    return [rtp.packet(first + i, b"payload") for i in range(count)]


@pytest.fixture
def make_receiver(closing, lease):
    def make(address, net, stream_id):
        return closing(PingingReceiver(address, lease.port(), net, stream_id, proxy_address=PROXY_ADDRESS))

    return make


def test_a_receiver_that_pings_every_2_s_stays_and_a_silent_one_is_suspended_and_removed_in_5_to_10_s(
    start_proxy, launch, make_receiver, closing, lease, net, receive, sender
):
    proxy = wait_bound(start_proxy("-a", "127.0.0.2"), net.destination, net.request)
    configured, loopback = receive("127.0.0.2"), receive("127.0.0.1")
    pinging = start_media(proxy, make_receiver("127.0.0.5", net, 1))
    moving = start_media(proxy, make_receiver("127.0.0.6", net, 2))
    silent = make_receiver("127.0.0.7", net, 3)
    # Static at once; it never pings again. Its media goes to the destination port, to `loopback`.
    make_receiver("127.0.0.1", net, 4).ping()
    proxy.wait_stderr(stamped("Process Ping: Added 127.0.0.1 stream ID:0x00000004"))

    # A second proxy with equal ports, where nobody watches over the learnt streams.
    other = closing(ports.Lease())
    port = other.port()
    other_net = types.SimpleNamespace(input=other.port(), destination=port, request=port)
    unwatching = launch("-I", other.instance, "-p", port, "-r", port, other_net.input).wait_ready()
    unwatching.wait_stderr(f"SocketListener: sock bound to port {port}", count=2)
    unwatched = start_media(
        unwatching, make_receiver("127.0.0.8", other_net, 5), lambda: settled_by_list(other.instance)
    )

    before_ping = time.monotonic()
    start_media(proxy, silent)
    behind_ping = time.monotonic()
    next_pings = behind_ping + PING_SECONDS
    removed_after = None
    lateness = closing(Lateness(TURN_SECONDS))

    def limit():
        """What is too long. The proxy sleeps in turns as the measuring thread does, and comes as late."""
        return LONGEST_SECONDS + SLACK_SECONDS + lateness.allowed()

    def watch():
        nonlocal next_pings, removed_after, moving
        now = time.monotonic()
        if now >= next_pings:
            next_pings += PING_SECONDS
            pinging.ping()
            # A receiver whose port changes with every ping is alive too.
            moving = make_receiver("127.0.0.6", net, 2)
            moving.ping()
        if removed_after is None and proxy.stderr.find(stamped("Stream suspended for 127.0.0.7")):
            removed_after = now - before_ping
        assert removed_after is not None or now - behind_ping <= limit()
        return removed_after is not None and now - behind_ping >= STAY_SECONDS

    wait_until(watch, "the end of the silent receiver", timeout=3 * STAY_SECONDS)
    assert removed_after >= SHORTEST_SECONDS - CLOCK_STEP_SECONDS
    # The removal behind the suspension prints nothing more, and nobody else was suspended.
    assert len([line for line in proxy.stderr.lines if "Stream suspended" in line]) == 1
    assert "Stream stopped" not in proxy.stderr.text
    assert control.request(net.instance, "List").split(",") == ["127.0.0.2", "127.0.0.5", "127.0.0.6", "127.0.0.1"]
    proxy.wait_stderr(media_started(moving))
    moving.settle()
    pump(sender, [configured, loopback, pinging, moving], media(5))
    assert silent.count() == 0
    pump(closing(Sender("127.0.0.1", other_net.input)), [unwatched], media(5))
    assert "Stream suspended" not in unwatching.stderr.text

    # Whoever was removed may come back.
    pump(sender, [start_media(proxy, silent)], media(3, first=100))
    assert len(proxy.stderr.find(stamped("Process Ping: Added 127.0.0.7 stream ID:0x00000003"))) == 2
