"""arqrx and addresses that change on the run: its own, or the one that the proxy's name stands for."""

import os
import struct

import pytest

from txproxy import arqrx, impairment, netns, ports, rtp, sandbox
from txproxy.arqrx import Arqrx, left, seconds, started
from txproxy.model_receiver import wait_bound
from txproxy.receiver import Receiver, Sender
from txproxy.traffic import Steady
from txproxy.waiting import wait_until, within

PER_SECOND = 200 if os.environ.get("TX_PROXY_BUILD_KIND") == "release" else 100
ENOUGH = 60  # packets that show that the stream flows
PING_SECONDS = 0.2
REJOIN_SECONDS = 1.0
LATENCY_SECONDS = 0.4
SPARE_SECONDS = 1.0  # of what a bound allows: figures and log lines come in turns
OLD, NEW = netns.peer_address(0), "10.77.0.3"
PLAYER = "127.0.0.60"
NAME = "proxy.test"
FIRST_HOST, SECOND_HOST = netns.proxy_address(0), "10.79.0.1"
SEEN_BY_SECOND = "10.79.0.2"  # the receiver


def packet(index, ssrc=1):
    return rtp.packet(index & 0xFFFF, struct.pack("!I", index) + bytes(200), ssrc=ssrc)


def played(player):
    """(SSRC, number) of each packet that was played, in order."""
    return [(struct.unpack_from("!I", data, 8)[0], struct.unpack("!I", rtp.payload(data)[:4])[0])
            for data in player.payloads]  # fmt: skip


def wait_another(player, count=ENOUGH):
    """The stream flows: so many packets more are played."""
    player.wait_count(player.count() + count)


def check_counts(figures, player):
    assert figures["final"]
    assert len(player.wait_count(figures["packets_played"])) == figures["packets_played"]
    assert figures["packets_missing"] == (
        figures["packets_recovered"] + figures["packets_lost"] + figures["packets_waiting"]
    )


@pytest.fixture
def lan(make_lan):
    return make_lan(1)


@pytest.fixture
def player(closing, lease, lan):
    return closing(Receiver(PLAYER, lease.port(), namespace=lan.peer))


@pytest.fixture
def join(closing, lan, net, player):
    """join(*options) starts a receiver in the peer namespace."""

    def start(*options, host=FIRST_HOST, preexec=None, stream_id=hex(arqrx.ID)):
        output = f"rtp://{PLAYER}:{player.address[1]}"
        arguments = ["--ping-interval", f"{PING_SECONDS}s", "--latency", seconds(LATENCY_SECONDS), "--drain",
                     "--output", output, *options]  # fmt: skip
        arguments = arqrx.joining(net, *arguments, host=host, stream_id=stream_id)
        return closing(Arqrx(*arguments, namespace=lan.peer, preexec=preexec))

    return start


@pytest.fixture
def stream(closing, net):
    """stream(namespace) sends to the input of the proxy there until the test ends."""
    return lambda namespace, ssrc=1: closing(
        Steady(closing(Sender("127.0.0.1", net.input, namespace=namespace)), lambda i: packet(i, ssrc), PER_SECOND)
    )


def change_address(host):
    """As another lease of its router would. With the same length of prefix the second would go with the first."""
    host.ip("addr", "add", f"{NEW}/25", "dev", "eth0")
    host.ip("addr", "del", f"{OLD}/24", "dev", "eth0")


def moves(proxy, receiver, lan, source, player, bound_seconds, stream_id):
    """Its address changes while the stream flows, and the stream comes again within the bound from then on."""
    asked = receiver.wait_figures(lambda figures: figures["packets_recovered"] > 0, "repair at the old address")
    recovered = asked["packets_recovered"]
    assert not proxy.stderr.find(started(NEW, stream_id))
    change_address(lan.peer)
    newest = source.sent
    with within(bound_seconds):
        proxy.wait_stderr(started(NEW, stream_id))
        wait_until(lambda: played(player)[-1][1] > newest, "media at the new address")
    receiver.wait_figures(lambda figures: figures["packets_recovered"] >= recovered + 10, "repair at the new one")


def check_played(player, figures):
    """The numbers went on over the move, and those that never came are counted as lost."""
    numbers = [number for _, number in played(player)]
    assert numbers == sorted(set(numbers))
    assert figures["packets_lost"] == numbers[-1] - numbers[0] + 1 - len(numbers)
    assert figures["restarts"] == 0


@pytest.fixture
def proxy(start_proxy, lan, net):
    """One that withholds packets all the time."""
    impairment.write_settings(net.instance, min_dist=10, min_drop=1)
    running = wait_bound(start_proxy(namespace=lan.proxy), net.destination, net.request)
    impairment.toggle(net.instance)
    running.wait_stderr("Impairment ON")
    return running


def test_without_stream_id_the_next_ping_brings_media_to_the_receivers_new_address(proxy, lan, join, stream, player):
    receiver = join("--rejoin-after", "60s", stream_id="none")
    proxy.wait_stderr(started(OLD, 0))
    source = stream(lan.proxy)
    wait_another(player)
    moves(proxy, receiver, lan, source, player, PING_SECONDS + LATENCY_SECONDS + SPARE_SECONDS, 0)
    assert receiver.end() == arqrx.GOOD
    last = receiver.figures()
    check_counts(last, player)
    check_played(player, last)
    assert last["rejoins"] == 0


def test_with_a_stream_id_media_come_to_the_new_address_once_silence_has_made_it_join_anew(
    proxy, lan, join, stream, player
):
    receiver = join("--rejoin-after", seconds(REJOIN_SECONDS))
    proxy.wait_stderr(started(OLD))
    source = stream(lan.proxy)
    wait_another(player)
    moves(proxy, receiver, lan, source, player, REJOIN_SECONDS + LATENCY_SECONDS + SPARE_SECONDS, arqrx.ID)
    assert proxy.stderr.find(left(OLD)), "the proxy sends to one address for an ID"
    receiver.wait_stderr("arqrx: nothing came for a while; joining anew")
    assert receiver.end() == arqrx.GOOD
    proxy.wait_stderr(left(NEW))
    last = receiver.figures()
    check_counts(last, player)
    check_played(player, last)
    assert last["rejoins"] >= 1


@pytest.fixture
def second_proxy(closing, launch, lan, net):
    """The same ports on another host, which the peer namespace reaches by a cable of its own."""
    host = closing(netns.Namespace())
    host.ip("link", "add", "eth0", "type", "veth", "peer", "name", "second", "netns", lan.peer.name)
    for side, address, device in ((host, SECOND_HOST, "eth0"), (lan.peer, SEEN_BY_SECOND, "second")):
        side.ip("addr", "add", f"{address}/24", "dev", device)
        side.ip("link", "set", device, "up")
    host.wait_cables()
    lan.peer.wait_cables()
    instance = closing(ports.Lease()).instance
    running = launch("-I", instance, "-p", net.destination, "-r", net.request, net.input, namespace=host)
    running.host = host
    return wait_bound(running.wait_ready(), net.destination, net.request)


def test_a_silent_proxys_name_is_looked_up_again_and_its_new_address_is_joined(
    start_proxy, second_proxy, lan, net, join, stream, player, tmp_path
):
    hosts = tmp_path / "hosts"
    hosts.write_text(f"{FIRST_HOST} {NAME}\n", "ascii")
    first = wait_bound(start_proxy(namespace=lan.proxy), net.destination, net.request)
    receiver = join("--rejoin-after", seconds(REJOIN_SECONDS), host=NAME, preexec=sandbox.covering("/etc/hosts", hosts))
    first.wait_stderr(started(OLD))
    for ssrc, host in ((1, lan.proxy), (2, second_proxy.host)):
        stream(host, ssrc)
    wait_another(player)
    hosts.write_text(f"{SECOND_HOST} {NAME}\n", "ascii")
    wait_another(player)
    assert {ssrc for ssrc, _ in played(player)} == {1}, "who hears its proxy stays with it"
    with within(REJOIN_SECONDS + PING_SECONDS + LATENCY_SECONDS + SPARE_SECONDS):
        first.stop()
        second_proxy.wait_stderr(started(SEEN_BY_SECOND))
        wait_until(lambda: played(player)[-1][0] == 2, "media of the second proxy")
    wait_another(player)
    receiver.wait_stderr(f"arqrx: the proxy has moved to {SECOND_HOST}:{net.destination}")
    assert receiver.end() == arqrx.GOOD
    second_proxy.wait_stderr(left(SEEN_BY_SECOND))
    last = receiver.figures()
    check_counts(last, player)
    assert last["proxy"] == f"{SECOND_HOST}:{net.destination}"
    assert last["packets_lost"] == 0, "the numbers of another proxy are no gap"
