"""Multicast on the input and on the output, in network namespaces."""

import re
import socket
import struct

import pytest

from txproxy import netns, receiver, rtp
from txproxy.receiver import Receiver, Sender, pump

GROUP = "239.1.1.1"
OTHER_GROUP = "239.1.1.2"


@pytest.fixture
def lan(make_lan):
    return make_lan(1)


@pytest.fixture
def remote(lan, net, closing):
    """A unicast receiver in the peer namespace."""
    return closing(Receiver(netns.peer_address(0), net.destination, namespace=lan.peer))


@pytest.fixture
def start_in_lan(start_proxy, lan):
    def start(*options, **keywords):
        return start_proxy(*options, namespace=lan.proxy, **keywords)

    return start


@pytest.fixture
def send_to(lan, net, closing):
    """send_to(address) gives a sender in the peer namespace to the input port at that address."""
    return lambda address: closing(
        Sender(address, net.input, namespace=lan.peer, multicast_interface=netns.peer_address(0))
    )


def joined_groups(namespace):
    """The groups that eth0 of the namespace has joined."""
    interface, groups = None, []
    with_text = namespace.call(lambda: open("/proc/thread-self/net/igmp", encoding="ascii").read())
    for line in with_text.splitlines()[1:]:
        fields = line.split()
        if not line.startswith("\t"):
            interface = fields[1]
        elif interface == "eth0":
            groups.append(socket.inet_ntoa(struct.pack("=I", int(fields[0], 16))))
    return groups


def test_a_group_is_announced_joined_and_received(start_in_lan, send_to, remote, lan, net, transport_stream):
    proxy = start_in_lan("-a", netns.peer_address(0), group=GROUP)
    assert proxy.stdout.lines == [
        f"Listening on multicast address {GROUP}",
        "Number of ARQ Buffers = 4096",
        f"Listening on port {net.input} for incoming stream",
    ]
    assert GROUP in joined_groups(lan.proxy)
    sent = [rtp.packet(i, transport_stream[1316 * i : 1316 * (i + 1)]) for i in range(200)]
    pump(send_to(GROUP), [remote], sent)
    assert [rtp.without_timestamp(data) for data in remote.payloads] == [rtp.without_timestamp(d) for d in sent]


def test_a_group_input_takes_only_its_group(start_in_lan, send_to, remote, lan, net, closing):
    start_in_lan("-a", netns.peer_address(0), group=GROUP)
    # Another member of the second group makes the host accept its datagrams at all.
    neighbour = closing(Receiver(sock=receiver.udp_socket(OTHER_GROUP, net.input, namespace=lan.proxy)))
    receiver.join(neighbour.sock, OTHER_GROUP, netns.proxy_address(0))
    send_to(netns.proxy_address(0)).send(rtp.packet(1, b"unicast"))
    send_to(OTHER_GROUP).send(rtp.packet(2, b"other group"))
    neighbour.wait_count(1)
    send_to(GROUP).send(rtp.packet(3, b"group"))
    assert [rtp.payload(data) for data in remote.wait_count(1)] == [b"group"]


@pytest.mark.parametrize("group", ["224.0.1.77", "239.255.255.255"])
def test_the_whole_multicast_range_is_joined(start_in_lan, send_to, remote, lan, group):
    start_in_lan("-a", netns.peer_address(0), group=group)
    assert group in joined_groups(lan.proxy)
    send_to(group).send(rtp.packet(1, b"media"))
    assert rtp.payload(remote.wait_count(1)[0]) == b"media"


@pytest.mark.parametrize("address", ["10.1.1.1", "223.255.255.255", "240.0.0.1", "127.0.0.1"])
def test_another_address_is_announced_but_neither_joined_nor_bound(start_in_lan, send_to, remote, lan, address):
    before = joined_groups(lan.proxy)
    proxy = start_in_lan("-a", netns.peer_address(0), group=address)
    assert proxy.stdout.lines[0] == f"Listening on multicast address {address}"
    assert joined_groups(lan.proxy) == before
    send_to(netns.proxy_address(0)).send(rtp.packet(1, b"media"))
    assert rtp.payload(remote.wait_count(1)[0]) == b"media"


@pytest.mark.parametrize("text", ["somewhere", "239.1.1", "239.1.1.1.1", "239.1.1.256", "", "239.001.0001.0001"])
def test_a_second_argument_that_is_no_dotted_quad_is_ignored(launch, lan, net, send_to, remote, text):
    proxy = launch(
        "-I", net.instance, "-p", net.destination, "-r", net.request,
        "-a", netns.peer_address(0), net.input, text, namespace=lan.proxy,
    ).wait_ready()  # fmt: skip
    assert len(proxy.stdout.lines) == 2
    send_to(netns.proxy_address(0)).send(rtp.packet(1, b"media"))
    assert rtp.payload(remote.wait_count(1)[0]) == b"media"


def test_the_announced_address_is_in_canonical_form(start_in_lan, lan):
    # The fields are decimal, whatever zeros stand before them.
    proxy = start_in_lan(group="239.001.010.1")
    assert proxy.stdout.lines[0] == "Listening on multicast address 239.1.10.1"
    assert "239.1.10.1" in joined_groups(lan.proxy)


@pytest.fixture
def local_sender(lan, net, closing):
    return closing(Sender("127.0.0.1", net.input, namespace=lan.proxy))


@pytest.fixture
def member(lan, net, closing):
    """member(group) receives a group in the peer namespace."""

    def join(group):
        sock = receiver.udp_socket(group, net.destination, namespace=lan.peer)
        receiver.join(sock, group, netns.peer_address(0))
        return closing(Receiver(sock=sock))

    return join


def test_a_group_output_carries_the_stream(start_in_lan, lease, member, local_sender, net, lan, transport_stream):
    unicast_port = lease.port()
    group = member("239.2.2.2")
    proxy = start_in_lan("-b", unicast_port, "-a", "239.2.2.2")
    assert proxy.stdout.lines == [
        f"UnicastUdpPort is {unicast_port}",
        "Number of ARQ Buffers = 4096",
        f"Multicasting to 239.2.2.2:{net.destination}, Unicasting to {unicast_port}",
        f"Listening on port {net.input} for incoming stream",
    ]
    sent = [rtp.packet(i, transport_stream[1316 * i : 1316 * (i + 1)]) for i in range(200)]
    pump(local_sender, [group], sent)
    assert [rtp.without_timestamp(data) for data in group.payloads] == [rtp.without_timestamp(d) for d in sent]


def test_a_group_output_in_raw_mode_is_numbered_from_1(start_in_lan, lease, member, local_sender):
    group = member("239.2.2.2")
    start_in_lan("-u", "-b", lease.port(), "-a", "239.2.2.2")
    pump(local_sender, [group], [b"one", b"two", b"three"])
    assert [(rtp.seq(data), rtp.payload(data)) for data in group.payloads] == [(1, b"one"), (2, b"two"), (3, b"three")]
    assert {data[:2] for data in group.payloads} == {b"\x80\x21"}


def test_with_a_group_output_the_ping_port_is_the_unicast_port(start_in_lan, lease, net):
    unicast_port = lease.port()
    proxy = start_in_lan("-b", unicast_port, "-a", "239.2.2.2")
    proxy.wait_stderr(f"SocketListener: sock bound to port {net.request}")
    proxy.wait_stderr(f"SocketListener: sock bound to port {unicast_port}")
    assert f"bound to port {net.destination}\n" not in proxy.stderr.text


def test_the_first_group_of_the_list_is_taken_and_the_rest_ignored(start_in_lan, lease, member, local_sender, net):
    unicast_port = lease.port()
    first, second = member("239.1.1.1"), member("239.1.1.2")
    proxy = start_in_lan("-b", unicast_port, "-a", "10.0.0.1,239.1.1.1,239.1.1.2,10.0.0.2")
    assert proxy.stdout.lines == [
        f"UnicastUdpPort is {unicast_port}",
        "Number of ARQ Buffers = 4096",
        "Error: Skipping 10.0.0.1, not a multicast address",
        f"Multicasting to 239.1.1.1:{net.destination}, Unicasting to {unicast_port}",
        f"Listening on port {net.input} for incoming stream",
    ]
    pump(local_sender, [first], [rtp.packet(i) for i in range(20)])
    assert second.count() == 0
    added = proxy.stderr.find(re.compile(r".*Added .*"))
    assert len(added) == 1
    assert added[0].endswith("AddStream: Added 239.1.1.1 stream ID:0x00000000")


def test_a_unicast_port_without_a_group_is_reported_and_leaves_no_stream(start_in_lan, lease, net):
    unicast_port = lease.port()
    proxy = start_in_lan("-b", unicast_port, "-a", "10.0.0.1,no such host,10.0.0.2")
    assert proxy.stdout.lines == [
        f"UnicastUdpPort is {unicast_port}",
        "Number of ARQ Buffers = 4096",
        "Error: Skipping 10.0.0.1, not a multicast address",
        "Error: Skipping 10.0.0.2, not a multicast address",
        "Error: No multicast address",
        f"Listening on port {net.input} for incoming stream",
    ]
    assert "Added" not in proxy.stderr.text
    # The destination port is replaced only by a group that was found.
    proxy.wait_stderr(f"SocketListener: sock bound to port {net.destination}")


def test_a_unicast_port_without_destinations_says_nothing_of_groups(start_in_lan, lease, net):
    proxy = start_in_lan("-b", lease.port())
    proxy.wait_stderr(f"SocketListener: sock bound to port {net.destination}")
    assert "multicast address" not in proxy.stdout.text


def test_a_group_among_unicast_destinations_is_skipped_with_a_message(start_in_lan, remote, member, local_sender, net):
    group = member("239.1.1.1")
    proxy = start_in_lan("-a", f"239.1.1.1,{netns.peer_address(0)},224.0.0.9,239.255.255.255")
    assert proxy.stdout.lines == [
        "Number of ARQ Buffers = 4096",
        "Error: Skipping 239.1.1.1, not an unicast address",
        "Error: Skipping 224.0.0.9, not an unicast address",
        "Error: Skipping 239.255.255.255, not an unicast address",
        f"Listening on port {net.input} for incoming stream",
    ]
    pump(local_sender, [remote], [rtp.packet(i) for i in range(20)])
    assert group.count() == 0
