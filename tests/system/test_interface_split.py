"""Spreading a stream over the interfaces eth0, eth1, ...: which datagram leaves where."""

import re

import pytest

from txproxy import netns, receiver, rtp
from txproxy.receiver import Receiver, Sender, pump

REMOTE = "10.99.0.1"  # behind every interface


@pytest.fixture
def split(make_lan, closing, net, start_proxy):
    """split(interfaces, *options) starts a proxy with one stream to REMOTE and tells where datagrams leave.

    The result is called with a number of datagrams; it sends so many and returns the interface numbers, in
    the order of the datagrams.
    """

    def start(interfaces, *options):
        lan = make_lan(interfaces)
        lan.peer.ip("addr", "add", f"{REMOTE}/32", "dev", "lo")
        for i in range(interfaces):
            lan.proxy.ip("route", "add", REMOTE, "via", netns.peer_address(i), "dev", f"eth{i}", "metric", 10 + i)
        sockets = {
            i: receiver.udp_socket(REMOTE, net.destination, namespace=lan.peer, device=f"eth{i}")
            for i in range(interfaces)
        }
        remote = closing(Receiver(sockets=sockets))
        sender = closing(Sender("127.0.0.1", net.input, namespace=lan.proxy))
        proxy = start_proxy(*options, "-a", REMOTE, namespace=lan.proxy)

        def interfaces_used(count):
            remote.clear()
            pump(sender, [remote], [rtp.packet(i) for i in range(count)], window=8)
            assert sorted(rtp.seq(datagram.data) for datagram in remote.datagrams) == list(range(count))
            used = {rtp.seq(datagram.data): datagram.interface for datagram in remote.datagrams}
            return [used[i] for i in range(count)]

        interfaces_used.proxy = proxy
        return interfaces_used

    return start


def test_70_percent_gives_runs_of_the_credit_rule(split):
    used = split(2, "-n", 2, "-1", 70)
    # Credits 70/30, step 30: ten datagrams bring both credits back to their weights.
    assert used(40) == [0, 0, 0, 1, 0, 0, 1, 0, 0, 1] * 4


def test_30_percent_gives_runs_of_the_credit_rule(split):
    used = split(2, "-n", 2, "-1", 30)
    # The first datagram always leaves on eth0; from there on eth1 has the credit.
    assert used(31) == [0] + [1, 1, 0, 1, 1, 0, 1, 1, 1, 0] * 3


@pytest.mark.parametrize("options", [[], ["-1", "50"], ["-1", "101"], ["-1", "65535"], ["-1", "-1"]])
def test_50_percent_by_default_and_above_100_alternates(split, options):
    assert split(2, "-n", 2, *options)(20) == [0, 1] * 10


@pytest.mark.parametrize("percent", ["0", "65536", ""])
def test_0_percent_sends_all_but_the_first_datagram_on_eth1(split, percent):
    assert split(2, "-n", 2, "-1", percent)(20) == [0] + [1] * 19


def test_100_percent_sends_everything_on_eth0(split):
    assert split(2, "-n", 2, "-1", 100)(20) == [0] * 20


@pytest.mark.parametrize("options", [["-n", "0"], ["-n", "1"], ["-n", "1", "-1", "0"], ["-1", "0"], ["-n", "65537"]])
def test_fewer_than_two_interfaces_send_everything_on_eth0(split, options):
    assert split(2, *options)(20) == [0] * 20


def test_one_interface_binds_the_stream_to_eth0_against_the_route(make_lan, closing, net, start_proxy):
    lan = make_lan(2)
    lan.peer.ip("addr", "add", f"{REMOTE}/32", "dev", "lo")
    lan.proxy.ip("route", "add", REMOTE, "via", netns.peer_address(1), "dev", "eth1", "metric", 1)
    lan.proxy.ip("route", "add", REMOTE, "via", netns.peer_address(0), "dev", "eth0", "metric", 9)
    sockets = {
        i: receiver.udp_socket(REMOTE, net.destination, namespace=lan.peer, device=f"eth{i}") for i in range(2)
    }
    remote = closing(Receiver(sockets=sockets))
    sender = closing(Sender("127.0.0.1", net.input, namespace=lan.proxy))
    start_proxy("-n", 1, "-a", REMOTE, namespace=lan.proxy)
    pump(sender, [remote], [rtp.packet(i) for i in range(10)])
    assert [datagram.interface for datagram in remote.datagrams] == [0] * 10


def test_a_third_interface_gets_nothing_from_the_weights_of_two(split):
    assert split(3, "-n", 3, "-1", 70)(20) == [0, 0, 0, 1, 0, 0, 1, 0, 0, 1] * 2


@pytest.mark.parametrize("count, missing", [(2, 1), (4, 3), (5, 3), (1000, 3)])
def test_missing_interfaces_are_reported_and_at_most_4_are_used(split, count, missing):
    used = split(1, "-n", count)
    no_device = "SO_BINDTODEVICE failed: No such device"
    assert used.proxy.stderr.find(re.compile(r"SO_BINDTODEVICE.*")) == [no_device] * missing
    # Unbound, the second socket follows the route.
    assert used(20) == [0] * 20


def test_each_interface_has_a_socket_and_port_of_its_own(make_lan, closing, net, start_proxy):
    lan = make_lan(2)
    lan.peer.ip("addr", "add", f"{REMOTE}/32", "dev", "lo")
    for i in range(2):
        lan.proxy.ip("route", "add", REMOTE, "via", netns.peer_address(i), "dev", f"eth{i}", "metric", 10 + i)
    remote = closing(Receiver(REMOTE, net.destination, namespace=lan.peer))
    sender = closing(Sender("127.0.0.1", net.input, namespace=lan.proxy))
    start_proxy("-n", 2, "-a", REMOTE, namespace=lan.proxy)
    pump(sender, [remote], [rtp.packet(i) for i in range(10)])
    sources = {datagram.source for datagram in remote.datagrams}
    assert {address for address, _ in sources} == {netns.proxy_address(0), netns.proxy_address(1)}
    assert len(sources) == 2


def test_every_stream_splits_by_its_own_credits(make_lan, closing, net, start_proxy):
    lan = make_lan(2)
    streams = [REMOTE, "10.99.0.2"]
    remotes = []
    for address in streams:
        lan.peer.ip("addr", "add", f"{address}/32", "dev", "lo")
        for i in range(2):
            lan.proxy.ip("route", "add", address, "via", netns.peer_address(i), "dev", f"eth{i}", "metric", 10 + i)
        sockets = {
            i: receiver.udp_socket(address, net.destination, namespace=lan.peer, device=f"eth{i}") for i in range(2)
        }
        remotes.append(closing(Receiver(sockets=sockets)))
    sender = closing(Sender("127.0.0.1", net.input, namespace=lan.proxy))
    start_proxy("-n", 2, "-1", 70, "-a", ",".join(streams), namespace=lan.proxy)
    pump(sender, remotes, [rtp.packet(i) for i in range(20)])
    for remote in remotes:
        used = {rtp.seq(datagram.data): datagram.interface for datagram in remote.datagrams}
        assert [used[i] for i in range(20)] == [0, 0, 0, 1, 0, 0, 1, 0, 0, 1] * 2


def test_a_group_output_is_not_split(make_lan, closing, net, lease, start_proxy):
    lan = make_lan(2)
    sender = closing(Sender("127.0.0.1", net.input, namespace=lan.proxy))
    group = "239.3.3.3"
    sockets = {
        i: receiver.udp_socket(group, net.destination, namespace=lan.peer, device=f"eth{i}") for i in range(2)
    }
    for i, sock in sockets.items():
        receiver.join(sock, group, netns.peer_address(i))
    remote = closing(Receiver(sockets=sockets))
    start_proxy("-n", 2, "-1", 0, "-b", lease.port(), "-a", group, namespace=lan.proxy)
    pump(sender, [remote], [rtp.packet(i) for i in range(10)])
    assert [datagram.interface for datagram in remote.datagrams] == [0] * 10
